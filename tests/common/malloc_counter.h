// Counts malloc/calloc/realloc calls (operator new ends in malloc too) made
// by chosen threads, for the tests that show a steady state allocates
// nothing. Link common/malloc_counter.cpp; not usable under a sanitizer.
#pragma once

#include <cstddef>

namespace vesk::test {

void CountThisThread(bool on);
// Threads with this name (as set by prctl) count too; nullptr stops them.
void CountThreadsNamed(const char* name);
size_t MallocCount();
void ResetMallocCount();

}  // namespace vesk::test
