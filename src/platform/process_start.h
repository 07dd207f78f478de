// What the operating system wants to be prepared once.
#pragma once

namespace platform {

// Prepares it; called once, before anything else, when the library is loaded. False if the system refused.
bool prepareProcess() noexcept;

}  // namespace platform
