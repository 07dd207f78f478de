// Small file systems of a test's own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>

#include "support/scratch_folder.h"

namespace interprocess {

// Mounted where this process and its children see it only; gone with the object, or with the process.
class SmallDisk {
 public:
  enum class Kind { Memory, Ext4, Ext4WithoutReservation, NoSize };

  // `files`: how many it can hold, about; 0 for as many as it likes.
  SmallDisk(Kind kind, std::uint64_t bytes, unsigned files = 0);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  // Why it could not be mounted; empty if it could.
  const std::string& missing() const { return missing_; }

  const std::filesystem::path& folder() const { return folder_; }

  // What an unprivileged program may still write to it.
  std::uint64_t freeBytes() const;

  // Takes all its room with a file; freeRoom removes it.
  void fill() const;
  void freeRoom() const;

  // No one can write to it from here on. False if that cannot be done.
  bool makeReadOnly() const;

 private:
  void mountAs(Kind kind, std::uint64_t bytes, unsigned files);
  void mountMemory(const char* type, std::uint64_t bytes, unsigned files);
  void mountExt4(std::uint64_t bytes, unsigned files, bool reservation);

  support::ScratchFolder scratch_;
  std::filesystem::path folder_;
  std::string missing_;
};

inline void PrintTo(SmallDisk::Kind kind, std::ostream* out) {
  constexpr const char* kNames[] = {"memory", "ext4", "ext4 without reservation", "no size"};
  *out << kNames[static_cast<int>(kind)];
}

}  // namespace interprocess
