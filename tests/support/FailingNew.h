#pragma once

#include <cstddef>

/// \file
/// Allocation that fails on demand: a test program that holds these functions has its `new` replaced, the library's
/// included.

/// The calling thread's next plain `new` throws.
void failNextNew();
/// The calling thread's plain `new` throws once, after so many that do not.
void failNewAfter(std::size_t news);
/// Whether it has.
bool newHasFailed();
/// None throws any more.
void failNoNew();
/// How often the calling thread has called plain `new`.
std::size_t newsSoFar();
/// From now on only those of the calling thread's plain `new` count, and fail, for which this is true; null for all.
void countNewsOnly(bool (*where)());
/// The calling thread's next `new (std::nothrow)` gives a null pointer.
void failNextNothrowNew();
