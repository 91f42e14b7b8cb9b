#pragma once

#include <string>
#include <vector>

/// A text that means something to whoever reads it for more than a text, and what it is, for a failure's message.
struct HostileText {
    std::string name;
    std::string text;
};

/// All of them, the longest last. None begins like a boolean, none holds a colon: call managers' addresses end there.
const std::vector<HostileText>& hostileTexts();

/// Whether it is the one that no index takes, which hold 2,704 bytes at most.
bool isTooLongForAKey(const std::string& text);
