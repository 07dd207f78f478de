// Replaces operator new: allocations fail where a test says so, and those of absurd sizes always (under the sanitizers,
// too, whose own operator new would end the process; malloc and calloc are told to return null).
#include "support/allocation_failures.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t kMoreThanAnyMachineHas = std::size_t{1} << 46;

std::atomic<long> callsUntilFailure{0};
std::atomic<bool> failed{false};

bool failsNow() {
  if (callsUntilFailure <= 0 || --callsUntilFailure != 0) {
    return false;
  }
  failed = true;
  return true;
}

}  // namespace

namespace support {

void failAllocation(long n) {
  failed = false;
  callsUntilFailure = n;
}

bool allocationHasFailed() { return failed; }

}  // namespace support

extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return size < kMoreThanAnyMachineHas && !failsNow() ? std::malloc(size == 0 ? 1 : size) : nullptr;
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
