#include "support/FailingNew.h"

#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

namespace {

constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
thread_local std::size_t plainNews = 0;
thread_local std::size_t failingNew = kNever;
thread_local bool nothrowFails = false;
thread_local bool (*counted)() = nullptr;

void* allocate(std::size_t size)
{
    return std::malloc(size == 0 ? 1 : size);
}

bool fails()
{
    if (counted != nullptr && !counted()) {
        return false;
    }
    return plainNews++ == failingNew;
}

} // namespace

void failNextNew()
{
    failNewAfter(0);
}

void failNewAfter(std::size_t news)
{
    failingNew = plainNews + news;
}

bool newHasFailed()
{
    return plainNews > failingNew;
}

void failNoNew()
{
    failingNew = kNever;
}

std::size_t newsSoFar()
{
    return plainNews;
}

void countNewsOnly(bool (*where)())
{
    counted = where;
}

void failNextNothrowNew()
{
    nothrowFails = true;
}

void* operator new(std::size_t size)
{
    void* const memory = fails() ? nullptr : allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return std::exchange(nothrowFails, false) ? nullptr : allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept
{
    std::free(memory);
}
