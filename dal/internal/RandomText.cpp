#include <dal/internal/RandomText.h>

#include <unistd.h>

#include <vector>

namespace oryx {

// Straight from the system, because a suite's own platform libraries need not have any.
std::optional<std::string> randomText(std::size_t bytes)
{
    std::vector<unsigned char> random(bytes);
    if (getentropy(random.data(), random.size()) != 0) {
        return {};
    }
    std::string text;
    for (const unsigned char byte : random) {
        text.append({"0123456789abcdef"[byte >> 4U], "0123456789abcdef"[byte & 15U]});
    }
    return text;
}

} // namespace oryx
