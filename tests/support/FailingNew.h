#pragma once

/// \file
/// Allocation that fails on demand: a test program that holds these functions has its `new` replaced, the library's
/// included.

/// The calling thread's next plain `new` throws.
void failNextNew();
/// The calling thread's next `new (std::nothrow)` gives a null pointer.
void failNextNothrowNew();
