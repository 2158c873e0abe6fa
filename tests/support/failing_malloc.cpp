// The process's malloc, counted and made to fail: for operator new and for hiredis. Sanitizers have
// a malloc of their own, so a test is linked with this file only without them.
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "failing_memory.h"

thread_local int allocations = 0;
thread_local int live_allocations = 0;
thread_local int failing_allocation = -1;

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
char* sdsnewlen(const void* text, std::size_t length);
}

namespace {

void* counted(void* memory) {
  live_allocations += memory != nullptr ? 1 : 0;
  return memory;
}

bool fails() {
  if (allocations++ != failing_allocation) {
    return false;
  }
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) { return fails() ? nullptr : counted(__libc_malloc(size)); }
void* calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : counted(__libc_calloc(count, size));
}
void* realloc(void* memory, std::size_t size) {
  if (fails()) {
    return nullptr;
  }
  void* moved = __libc_realloc(memory, size);
  return memory == nullptr ? counted(moved) : moved;
}
void free(void* memory) {
  live_allocations -= memory != nullptr ? 1 : 0;
  __libc_free(memory);
}

// Allocations that hiredis 0.14 does not survive: a failed copy of a connection's address or
// timeout aborts the process, and the new buffer after a write is used unchecked. Its functions for
// these are replaced by ones that do not fail.
#pragma GCC visibility push(default)
void* hi_malloc(std::size_t size) { return counted(__libc_malloc(size)); }
char* hi_strdup(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  return static_cast<char*>(std::memcpy(hi_malloc(size), text, size));
}
char* sdsempty() {
  const int failing = std::exchange(failing_allocation, -1);
  char* text = sdsnewlen("", 0);
  failing_allocation = failing;
  return text;
}
#pragma GCC visibility pop

}  // extern "C"
