#include "malloc_counter.h"

#include <sys/prctl.h>

#include <atomic>
#include <cstring>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void __libc_free(void* pointer);
}

namespace {
__thread bool t_counting = false;
std::atomic<bool> g_named(false);
char g_name[17];
std::atomic<size_t> g_count(0);

void Count() {
  if (t_counting) {
    g_count++;
  } else if (g_named.load(std::memory_order_acquire)) {
    char name[17] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    if (strcmp(name, g_name) == 0) g_count++;
  }
}
}  // namespace

namespace vesk::test {
void CountThisThread(bool on) { t_counting = on; }
void CountThreadsNamed(const char* name) {
  g_named = false;
  if (name == nullptr) return;
  strncpy(g_name, name, 16);
  g_named.store(true, std::memory_order_release);
}
size_t MallocCount() { return g_count.load(); }
void ResetMallocCount() { g_count = 0; }
}  // namespace vesk::test

extern "C" {
void* malloc(size_t size) noexcept {
  Count();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
  Count();
  return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) noexcept {
  Count();
  return __libc_realloc(pointer, size);
}
void free(void* pointer) noexcept { __libc_free(pointer); }
}
