#pragma once

#include <string>

#include <util/OryxExport.h>

/// Passwords as they are stored: encrypted and authenticated (XChaCha20-Poly1305, a random nonce for each).
///
/// A stored password is "{oryx1}" and, in base64, the nonce (24 bytes), the encrypted text and its tag (16 bytes). A
/// text without that prefix is a password stored in clear.
///
/// The key is 64 hexadecimal digits, white space around them allowed, in the regular file named by
/// `ORYX_CRYPT_KEY_FILE` (ignored in a program that runs with raised privileges, setuid ones for example). It is read
/// at each use, so that another key counts at once, and does not stay in memory. What fails is said on the trace
/// channel "Crypt" as one `log` line, with neither password nor key in it; so is, at each use, a key file that is open
/// to others, which is used all the same: to all others, and to its group too if it is the process's own file. Safe
/// from any thread.
/// \ingroup platform
class ORYX_EXPORT Crypt {
public:
    /// Encrypts a password for the database. False without a usable key: `stored` is then empty. Both arguments may be
    /// the same object.
    static bool encrypt(const std::string& clear, std::string& stored);

    /// The password behind a stored text. False if the text cannot be decrypted (no usable key, another key, a text
    /// that was altered): `clear` is then empty, and must not be compared with anything. Both arguments may be the same
    /// object.
    static bool decrypt(const std::string& stored, std::string& clear);
};
