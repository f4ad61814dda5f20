// Counts the process's C++ allocations (operator new), for the tests that show
// a steady state allocates nothing. Link common/alloc_counter.cpp to use it.
// Under a sanitizer, which replaces the allocator itself, nothing is counted
// (the count stays 0) and those builds check memory errors instead.
#pragma once

#include <cstdint>

namespace vesk {
namespace test {

uint64_t AllocationCount();

}  // namespace test
}  // namespace vesk
