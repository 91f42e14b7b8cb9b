#include <Crypt.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <support/TemporaryDirectory.h>
#include <unit/TraceCapture.h>

namespace cryptTest {

namespace {

using Lines = std::vector<std::string>;

const std::string kKey = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
const std::string kOtherKey = "f0e0d0c0b0a090807060504030201000000102030405060708090A0B0C0D0E0F";

// What kKey made of "secret".
const std::string kStored = "{oryx1}Y5DJNvRN6FkANiqceF8Jpd5z74UD5uLT22AQEwiVdZgWLiz84QsGWF1OyFQ7Yg==";

/// A key file of the test's own, with kKey in it.
class CryptWithKey : public testing::Test {
public:
    ~CryptWithKey() override { unsetenv("ORYX_CRYPT_KEY_FILE"); }

protected:
    CryptWithKey() { useKey(kKey); }

    void useKey(const std::string& content) { useKeyFile(m_directory.write("key", content)); }
    static void useKeyFile(const std::string& path) { setenv("ORYX_CRYPT_KEY_FILE", path.c_str(), 1); }

    static std::string encrypted(const std::string& clear)
    {
        std::string stored = "old stored";
        EXPECT_TRUE(Crypt::encrypt(clear, stored));
        return stored;
    }

    static std::string decrypted(const std::string& stored)
    {
        std::string clear = "old clear";
        EXPECT_TRUE(Crypt::decrypt(stored, clear));
        return clear;
    }

    /// The lines a decryption traces that must fail and leave no clear text.
    static Lines refusal(const std::string& stored)
    {
        const TraceCapture trace;
        std::string clear = "old clear";
        EXPECT_FALSE(Crypt::decrypt(stored, clear));
        EXPECT_EQ(clear, "");
        return trace.lines();
    }

    Lines badKeyFile() const
    {
        return {"Crypt log cannot decrypt a password: key file " + m_directory.file("key") +
                ": not 64 hexadecimal digits"};
    }

    const TemporaryDirectory m_directory;
};

const Lines kRefused = {"Crypt log cannot decrypt a password: it was encrypted with another key, or altered since"};
const Lines kDamaged = {"Crypt log cannot decrypt a password: the stored text is damaged"};

TEST_F(CryptWithKey, decryptsWhatItEncrypted)
{
    for (const std::string& clear : {std::string("secret"), std::string(), std::string("a\0b", 3),
                                     std::string("{oryx1}"), std::string(100000, 'x')}) {
        EXPECT_EQ(decrypted(encrypted(clear)), clear);
    }
}

TEST_F(CryptWithKey, decryptsATextStoredEarlier)
{
    EXPECT_EQ(decrypted(kStored), "secret");
}

TEST_F(CryptWithKey, storesPrefixAndBase64WithoutTheClearText)
{
    const std::string stored = encrypted("secret");
    EXPECT_EQ(stored.size(), kStored.size());
    EXPECT_EQ(stored.substr(0, 7), "{oryx1}");
    EXPECT_EQ(stored.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=", 7),
              std::string::npos);
    EXPECT_EQ(stored.find("secret"), std::string::npos);
}

TEST_F(CryptWithKey, encryptsTheSamePasswordDifferentlyEachTime)
{
    EXPECT_NE(encrypted("secret"), encrypted("secret"));
}

TEST_F(CryptWithKey, takesATextWithoutThePrefixForItsOwnClearText)
{
    unsetenv("ORYX_CRYPT_KEY_FILE");
    for (const std::string clear : {"secret", "", "oryx1", "{oryx1", "{ORYX1}", " {oryx1}", "{oryx2}AAAA"}) {
        EXPECT_EQ(decrypted(clear), clear);
    }
}

TEST_F(CryptWithKey, worksInPlace)
{
    std::string password = "secret";
    EXPECT_TRUE(Crypt::encrypt(password, password));
    EXPECT_NE(password, "secret");
    EXPECT_TRUE(Crypt::decrypt(password, password));
    EXPECT_EQ(password, "secret");
    EXPECT_TRUE(Crypt::decrypt(password, password));
    EXPECT_EQ(password, "secret");
}

TEST_F(CryptWithKey, tracesNothingWhenItSucceeds)
{
    const TraceCapture trace;
    decrypted(encrypted("secret"));
    EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(CryptWithKey, refusesATextOfAnotherKey)
{
    useKey(kOtherKey);
    EXPECT_EQ(refusal(kStored), kRefused);
}

TEST_F(CryptWithKey, readsTheKeyAtEachUse)
{
    useKey(kOtherKey);
    const std::string stored = encrypted("other");
    useKey(kKey);
    EXPECT_EQ(decrypted(kStored), "secret");
    EXPECT_EQ(refusal(stored), kRefused);
    useKey(kOtherKey);
    EXPECT_EQ(decrypted(stored), "other");
}

TEST_F(CryptWithKey, refusesATextWithAnyCharacterAltered)
{
    for (std::size_t i = 7; i < kStored.size(); ++i) {
        std::string altered = kStored;
        altered[i] = altered[i] == 'A' ? 'Q' : 'A';
        const Lines lines = refusal(altered);
        EXPECT_TRUE(lines == kRefused || lines == kDamaged) << i << ": " << testing::PrintToString(lines);
    }
}

TEST_F(CryptWithKey, refusesATextThatIsCutOrExtended)
{
    for (std::size_t size = 7; size < kStored.size(); ++size) {
        const Lines lines = refusal(kStored.substr(0, size));
        EXPECT_TRUE(lines == kRefused || lines == kDamaged) << size << ": " << testing::PrintToString(lines);
    }
    EXPECT_EQ(refusal(kStored + "AAAA"), kDamaged);
    EXPECT_EQ(refusal(kStored + " "), kDamaged);
    EXPECT_EQ(refusal(kStored + "\n"), kDamaged);
    EXPECT_EQ(refusal("{oryx1}"), kDamaged);
    EXPECT_EQ(refusal("{oryx1}no base64!"), kDamaged);
}

TEST_F(CryptWithKey, refusesWithoutAKeyFile)
{
    const Lines notSet = {"Crypt log cannot decrypt a password: ORYX_CRYPT_KEY_FILE is not set"};
    useKeyFile("");
    EXPECT_EQ(refusal(kStored), notSet);
    unsetenv("ORYX_CRYPT_KEY_FILE");
    EXPECT_EQ(refusal(kStored), notSet);
}

TEST_F(CryptWithKey, refusesAKeyFileThatCannotBeRead)
{
    const std::string missing = m_directory.file("missing");
    useKeyFile(missing);
    EXPECT_EQ(refusal(kStored),
              (Lines{"Crypt log cannot decrypt a password: key file " + missing + ": No such file or directory"}));
    const std::string directory = m_directory.file("directory");
    std::filesystem::create_directory(directory);
    useKeyFile(directory);
    EXPECT_EQ(refusal(kStored),
              (Lines{"Crypt log cannot decrypt a password: key file " + directory + ": not a regular file"}));
}

TEST_F(CryptWithKey, refusesAKeyThatComesFromNoRegularFile)
{
    const std::string fifo = m_directory.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, std::string("/dev/zero")}) {
        useKeyFile(path);
        EXPECT_EQ(refusal(kStored),
                  (Lines{"Crypt log cannot decrypt a password: key file " + path + ": not a regular file"}));
    }
}

TEST_F(CryptWithKey, saysThatTheKeyIsOpenToOthersAndUsesIt)
{
    const std::string key = m_directory.file("key");
    for (const auto& [mode, shown] : {std::pair<mode_t, std::string>{0644, "644"}, {0640, "640"}, {0602, "602"}}) {
        ASSERT_EQ(chmod(key.c_str(), mode), 0);
        const TraceCapture trace;
        EXPECT_EQ(decrypted(kStored), "secret");
        EXPECT_EQ(trace.lines(), (Lines{"Crypt log key file " + key + " is open to others (mode " + shown +
                                        "): chmod 600, and encrypt with a new key"}));
    }
    ASSERT_EQ(chmod(key.c_str(), 0400), 0);
    const TraceCapture trace;
    EXPECT_EQ(decrypted(kStored), "secret");
    EXPECT_EQ(trace.lines(), Lines{});
}

TEST_F(CryptWithKey, refusesAKeyFileWithoutSixtyFourHexadecimalDigits)
{
    const std::string cut = kKey.substr(1);
    const Lines contents = {"",
                            " \n",
                            cut,
                            kKey.substr(2),
                            kKey + "0",
                            kKey + "00",
                            "g" + cut,
                            kKey.substr(0, 32) + "\n" + kKey.substr(32),
                            kKey + "\n" + kKey,
                            "0x" + kKey.substr(2),
                            kKey + std::string(2000, ' ') + "0"};
    for (const std::string& content : contents) {
        useKey(content);
        EXPECT_EQ(refusal(kStored), badKeyFile()) << content;
    }
}

TEST_F(CryptWithKey, takesAKeyInEitherCaseWithWhiteSpaceAround)
{
    std::string upper = kKey;
    std::replace(upper.begin(), upper.end(), 'a', 'A');
    for (const std::string& content : {kKey + "\n", " \t\r\n" + kKey + "\r\n\n ", upper}) {
        useKey(content);
        EXPECT_EQ(decrypted(kStored), "secret") << content;
    }
}

TEST_F(CryptWithKey, encryptsNothingWithoutAUsableKey)
{
    useKey("no key");
    const TraceCapture trace;
    std::string stored = "old stored";
    EXPECT_FALSE(Crypt::encrypt("secret", stored));
    EXPECT_EQ(stored, "");
    EXPECT_EQ(trace.lines(), (Lines{"Crypt log cannot encrypt a password: key file " + m_directory.file("key") +
                                    ": not 64 hexadecimal digits"}));
}

} // namespace

} // namespace cryptTest
