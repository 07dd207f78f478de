// Lets allocations of absurd sizes fail under AddressSanitizer as they do without it, where it would end the process:
// malloc and calloc return null, operator new throws.
#include <cstddef>
#include <cstdlib>
#include <new>

extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  constexpr std::size_t kMoreThanAnyMachineHas = std::size_t{1} << 46;
  return size < kMoreThanAnyMachineHas ? std::malloc(size == 0 ? 1 : size) : nullptr;
}

void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
