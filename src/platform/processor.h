// What the processor that runs this can do beyond what every x86-64 can.
#pragma once

namespace platform {

// The instructions, and the system keeps their registers when it switches between threads.
bool processorHasAvx2() noexcept;

// AVX-512 with its operations on bytes (BW) and its choice of bytes from whole registers (VBMI).
bool processorHasAvx512Vbmi() noexcept;

}  // namespace platform
