// Running processes.
#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace platform {

std::uint32_t currentProcessId() noexcept;

// Those of `ids` that run a program whose file name is `executable` (a file name without its folder), or that name
// without its extension, regardless of case. Those that the system tells nothing about count as running.
std::set<std::int32_t> runningProcesses(const std::set<std::int32_t>& ids, const std::wstring& executable);

}  // namespace platform
