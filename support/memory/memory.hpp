// Counts what is allocated, by C++ and by libcurl, and lets an allocation fail. A program that
// links this has its operator new replaced.
#pragma once

#include <cstddef>

namespace memory {

/// The most bytes that were in use at once since `forget_peak`, which returns those that are now;
/// of all threads.
[[nodiscard]] std::ptrdiff_t peak();
std::ptrdiff_t forget_peak();

/// Bytes in use that this thread has allocated, less those that it has freed.
[[nodiscard]] std::ptrdiff_t balance();

/// Lets this thread's `nth` allocation from now on fail, counted from 1; 0: none any more.
/// Returns whether the one asked for before has failed.
bool fail(std::size_t nth);

}  // namespace memory
