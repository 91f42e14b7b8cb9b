#pragma once

/// \file
/// A system without random numbers, on demand: a test program that holds these functions, and exports them, has its
/// `getentropy` replaced, the library's included.

/// While such an object lives, the system gives no random numbers.
class NoRandomNumbers {
public:
    NoRandomNumbers();
    ~NoRandomNumbers();
    NoRandomNumbers(const NoRandomNumbers&) = delete;
    NoRandomNumbers& operator=(const NoRandomNumbers&) = delete;
};
