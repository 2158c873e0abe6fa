// The process's allocation functions, counted and made to fail. A test that is linked with them
// uses them instead of the standard ones, in the library as well.
#include <cstdlib>
#include <new>

#include "failing_memory.h"

thread_local int allocations = 0;
thread_local int live_allocations = 0;
thread_local int failing_allocation = -1;
thread_local bool no_memory = false;

namespace {

void* allocate(std::size_t size) {
  if (allocations++ == failing_allocation || no_memory) {
    return nullptr;
  }
  ++live_allocations;
  return std::malloc(size > 0 ? size : 1);
}

void release(void* memory) {
  live_allocations -= memory != nullptr ? 1 : 0;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* memory = allocate(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { release(memory); }
