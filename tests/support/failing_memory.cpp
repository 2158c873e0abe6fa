// The process's allocation functions, counted and made to fail. A test that is linked with them has
// them in place of the standard ones, in the library as well.
#include <cstdlib>
#include <new>

extern thread_local int allocations;
extern thread_local bool no_memory;
thread_local int allocations = 0;  // made in this thread
thread_local bool no_memory = false;

namespace {

void* allocate(std::size_t size) {
  ++allocations;
  return no_memory ? nullptr : std::malloc(size > 0 ? size : 1);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* memory = allocate(size)) { return memory; }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
