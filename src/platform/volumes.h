// Disks and the room on them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

// Equal for folders that lie on one disk. The folder need not exist.
std::wstring driveKey(const std::wstring& folder);

// Bytes that the caller can still write to the disk of `folder` if that is a disk fixed in this machine; 0 for any
// other one (network, removable, memory) and if the system does not say.
std::uint64_t fixedDriveFreeBytes(const std::wstring& folder);

// Bytes that the caller can still write below `folder`, whatever it lies on; nothing if the system does not say.
std::optional<std::uint64_t> freeBytes(const std::wstring& folder);

}  // namespace platform
