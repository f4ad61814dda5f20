// Counts the process's C++ allocations (operator new), for the tests that show
// a steady state allocates nothing. Link common/alloc_counter.cpp to use it.
#pragma once

#include <cstdint>

namespace vesk {
namespace test {

uint64_t AllocationCount();

}  // namespace test
}  // namespace vesk
