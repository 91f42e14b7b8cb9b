// Patterns as a grammar makes them of the fuzzer's bytes. What the schema lets into an address map must compile and
// match request URIs of the longest length that servers hand over, within the time, memory and stack below.

#include "support/ProcessorTime.h"
#include "support/Server.h"

#include <pthread.h>
#include <regex.h>
#include <sanitizer/allocator_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t kStack = 96 * 1024;
constexpr std::size_t kMemory = 8 * 1024 * 1024;
constexpr double kFirstSeconds = 0.25; // compiles and meets its states, with the sanitizer's slow allocations
constexpr double kAgainSeconds = 0.025;
constexpr time_t kPatience = 30; // for one pattern, on a machine however busy
constexpr std::size_t kUriBytes = 512;

/// The fuzzer takes the end of the process for a pattern found.
[[noreturn]] void fail(const char* what, const std::string& pattern)
{
    std::fprintf(stderr, "%s: %s\n", what, pattern.c_str());
    std::abort();
}

// Memory -----------------------------------------------------------------------------------------------------------

std::atomic<bool> counting{false};
std::atomic<std::size_t> allocated{0};
const std::string* measuredPattern = nullptr;

void onMalloc(const volatile void* /*block*/, std::size_t size)
{
    if (counting && (allocated += size) > kMemory) {
        counting = false;
        fail("takes too much memory", *measuredPattern);
    }
}

void onFree(const volatile void* block)
{
    if (counting && block != nullptr) {
        const auto* const begin = const_cast<const void*>(block);
        allocated -= std::min<std::size_t>(allocated, __sanitizer_get_allocated_size(begin));
    }
}

// The grammar ------------------------------------------------------------------------------------------------------

/// Makes a pattern of bytes; when they have run out, it comes to an end.
class Grammar {
public:
    Grammar(const std::uint8_t* data, std::size_t size) : m_data(data), m_end(data + size) {}

    std::string pattern()
    {
        std::string text;
        while (m_data != m_end && text.size() < kLongest) {
            text += alternative(0);
            text += m_data != m_end ? "|" : "";
        }
        return text;
    }

private:
    static constexpr std::size_t kLongest = 700;
    static constexpr int kDeepest = 12;

    unsigned next() { return m_data != m_end ? *m_data++ : 0; }
    unsigned upTo(unsigned most) { return next() % (most + 1); }

    std::string alternative(int depth)
    {
        std::string text;
        for (unsigned items = 1 + upTo(5); items > 0 && text.size() < kLongest; --items) {
            text += item(depth);
        }
        return text;
    }

    std::string item(int depth)
    {
        std::string text = atom(depth);
        while (upTo(2) == 2 && text.size() < kLongest) {
            text += repetition();
        }
        switch (upTo(7)) {
        case 1: // the same many times over
            return many(text, 1 + next());
        case 2: // ... and one in the other
            const unsigned deep = 1 + next();
            const std::string closing = upTo(1) == 0 ? ")" : ")" + repetition();
            const std::string opening = upTo(1) == 0 ? "(" : "(" + text + "|";
            return many(opening, deep) + text + many(closing, deep);
        }
        return text;
    }

    std::string atom(int depth)
    {
        static constexpr std::array kAtoms{"a",  "b",   "@",   ".",      "[ab]",        "[^@]", "^",   "$",
                                           "()", "\\b", "\\w", "[]a-b]", "[[:alnum:]]", "\\1",  "\\<", "\\."};
        const unsigned choice = upTo(kAtoms.size() + 7);
        if (choice < kAtoms.size() || depth == kDeepest) {
            return kAtoms[choice % kAtoms.size()];
        }
        switch (choice - kAtoms.size()) {
        case 0: // one to match, many to read
            return "[" + std::string(std::size_t{next()} * next() * 16, 'a') + "]";
        case 1:
            return "(" + alternative(depth + 1) + ")\\" + std::to_string(1 + upTo(2)) + repetition();
        case 2: // told apart only so many characters later
            return "[ab]*a[ab]{" + std::to_string(upTo(31)) + "}";
        }
        std::string text = "(" + alternative(depth + 1);
        for (unsigned alternatives = upTo(2); alternatives > 0; --alternatives) {
            text += "|" + alternative(depth + 1);
        }
        return text + ")";
    }

    std::string repetition()
    {
        switch (upTo(5)) {
        case 0:
            return "*";
        case 1:
            return "+";
        case 2:
            return "?";
        case 3:
            return "{" + std::to_string(next()) + "}";
        }
        const unsigned least = upTo(15);
        return "{" + std::to_string(least) + "," + std::to_string(least + upTo(63)) + "}";
    }

    static std::string many(std::string_view text, unsigned count)
    {
        std::string all;
        for (; count > 0 && all.size() < kLongest; --count) {
            all += text;
        }
        return all;
    }

    const std::uint8_t* m_data;
    const std::uint8_t* const m_end;
};

/// The longest URIs, of what the grammar's patterns are made of: a run of each, and mixtures.
std::string uri(unsigned number)
{
    static constexpr std::string_view kLetters = "ab@.";
    std::string text(kUriBytes, kLetters[number % kLetters.size()]);
    if (number >= kLetters.size()) {
        std::minstd_rand random(number);
        std::generate(text.begin(), text.end(), [&] { return kLetters[random() % (2 + number % 3)]; });
    }
    return text;
}

constexpr unsigned kUris = 12;

// The measurement --------------------------------------------------------------------------------------------------

double cpuSeconds()
{
    return processorTime().count();
}

/// Compiles a pattern and matches it as a server does, on a thread with a small stack.
void* measure(void* argument)
{
    const std::string& pattern = *static_cast<const std::string*>(argument);
    std::array<std::string, kUris> uris;
    for (unsigned i = 0; i < kUris; ++i) {
        uris[i] = uri(i);
    }
    regex_t regex{};
    allocated = 0;
    counting = true;
    double begin = cpuSeconds();
    const bool compiled = regcomp(&regex, pattern.c_str(), REG_EXTENDED) == 0;
    for (const std::string& text : uris) {
        if (compiled) {
            regexec(&regex, text.c_str(), 0, nullptr, 0);
        }
        if (cpuSeconds() - begin > kFirstSeconds) {
            fail("takes too long the first time", pattern);
        }
        begin = cpuSeconds();
    }
    for (const std::string& text : uris) {
        begin = cpuSeconds();
        if (compiled) {
            regexec(&regex, text.c_str(), 0, nullptr, 0);
        }
        if (cpuSeconds() - begin > kAgainSeconds) {
            fail("takes too long to match", pattern);
        }
    }
    counting = false;
    if (compiled) {
        regfree(&regex);
    }
    return nullptr;
}

void measureOnSmallStack(const std::string& pattern)
{
    static void* const kMemoryOfStack =
        mmap(nullptr, kStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    static const bool kGuarded = mprotect(kMemoryOfStack, static_cast<std::size_t>(getpagesize()), PROT_NONE) == 0;
    measuredPattern = &pattern;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, kMemoryOfStack, kStack);
    pthread_t thread{};
    if (!kGuarded || pthread_create(&thread, &attributes, measure, const_cast<std::string*>(&pattern)) != 0) {
        fail("no thread to measure", pattern);
    }
    pthread_attr_destroy(&attributes);
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += kPatience;
    if (pthread_timedjoin_np(thread, nullptr, &deadline) != 0) {
        fail("does not come to an end", pattern);
    }
}

/// The schema's own judgement, which does not take long either.
class Schema {
public:
    Schema() { m_session.run("SET statement_timeout = '20s'"); }

    bool accepts(const std::string& pattern)
    {
        return m_session.value("SELECT coalesce(address_map_pattern_refusal($fuzz$" + pattern +
                               "$fuzz$), 'accepted')") == "accepted";
    }

private:
    server::Database m_database;
    server::Session m_session{m_database.name()};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Schema schema;
    static const bool kHooked = __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree) != 0;
    const std::string pattern = Grammar(data, size).pattern();
    if (!kHooked) {
        fail("memory is not counted", pattern);
    }
    if (schema.accepts(pattern)) {
        measureOnSmallStack(pattern);
    }
    return 0;
}
