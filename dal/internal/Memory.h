#pragma once

#include <cstddef>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

/// \file
/// What operations do when memory runs out: nothing is thrown at their callers, and what they were given to fill is as
/// it was, or as it is set before the server is asked.

namespace oryx {

/// The reason they give. A string has place for it in itself, so to give it takes no memory.
inline constexpr const char* kOutOfMemory = "out of memory";

/// What an operation gives; when memory runs out meanwhile, what the other gives.
template <typename Operation, typename Otherwise>
auto unlessOutOfMemory(Operation&& operation, Otherwise&& otherwise) -> decltype(operation())
{
    try {
        return operation();
    } catch (const std::bad_alloc&) {
    } catch (const std::length_error&) { // more than any memory holds
    }
    return otherwise();
}

/// Has a reason kept; where there is no memory for it, that is the reason.
template <typename Keep>
void keepReason(const char* reason, Keep keep)
{
    unlessOutOfMemory([&] { keep(reason); }, [&] { keep(kOutOfMemory); });
}

/// Takes back what was added behind the first `count` records, and the room that was made for it.
template <typename Record>
void takeBack(std::vector<Record>& records, std::size_t count, std::size_t capacity) noexcept
{
    records.erase(records.begin() + static_cast<std::ptrdiff_t>(count), records.end());
    if (records.capacity() > capacity) {
        records.shrink_to_fit(); // the next call needs it; stays as it is where there is no memory to move to
    }
}

/// Has a caller's records added to: when something is thrown meanwhile, they are those of before.
template <typename Record, typename Add>
void addAllOrNone(std::vector<Record>& records, Add add)
{
    const std::size_t count = records.size();
    const std::size_t capacity = records.capacity();
    try {
        add();
    } catch (...) {
        takeBack(records, count, capacity);
        throw;
    }
}

/// Has a caller's record filled: when something is thrown meanwhile, it is what it was.
template <typename Record, typename Fill>
void fillAllOrNone(Record& record, Fill fill)
{
    Record filled = record;
    fill(filled);
    record = std::move(filled);
}

} // namespace oryx
