#pragma once

#include <cstddef>

/// \file
/// Allocation that fails on demand: a test program that holds these functions has its `new` replaced, the library's
/// included.

/// The calling thread's next plain `new` throws.
void failNextNew();
/// The calling thread's plain `new` throws once, after so many that do not.
void failNewAfter(std::size_t news);
/// None throws any more.
void failNoNew();
/// How often the calling thread has called plain `new`.
std::size_t newsSoFar();
/// The calling thread's next `new (std::nothrow)` gives a null pointer.
void failNextNothrowNew();
