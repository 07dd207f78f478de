// Makes an allocation of the test's choice fail.
#pragma once

#include <cstddef>

namespace support {

// The `n`-th call of operator new from now on fails, once; 0 stops that. On any thread of this program.
void failAllocation(long n);

// Whether the failure that was asked for has happened.
bool allocationHasFailed();

}  // namespace support
