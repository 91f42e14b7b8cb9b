#include "support/FailingNew.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local bool plainFails = false;
thread_local bool nothrowFails = false;

void* allocate(std::size_t size)
{
    return std::malloc(size == 0 ? 1 : size);
}

} // namespace

void failNextNew()
{
    plainFails = true;
}

void failNextNothrowNew()
{
    nothrowFails = true;
}

void* operator new(std::size_t size)
{
    void* const memory = std::exchange(plainFails, false) ? nullptr : allocate(size);
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
