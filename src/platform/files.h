// Files that other processes may hold open, too, and folders. New files and folders are their user's alone where the
// system has such rights.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

namespace platform {

struct CloseStream {
  void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, CloseStream>;

// A text file for reading; others may read and write it meanwhile. Null if it cannot be opened or its writer lets no
// one read.
Stream openTextForReading(const std::wstring& path);

// Makes `text` the contents of a text file, made if it is missing; no other process reads a part of it. False if it
// cannot be made or someone denies it to others; what it held before is kept then where the system allows that.
bool writeText(const std::wstring& path, std::string_view text);

// An empty file that no one else can open in this way while the stream lives. Null if someone has it open, or it cannot
// be made.
Stream openLockFile(const std::wstring& path);

// Makes a file of `bytes` zero bytes (at least one). Its room on the disk is taken at once where the file system can do
// that. Fails with std::errc::file_exists if there is one of that name; on any other failure nothing is left of it.
std::error_code createZeroFile(const std::string& narrowPath, std::uint64_t bytes);

// Removes a file that belongs to this process. False if that fails.
bool removeFile(const std::string& narrowPath);

// Removes a file unless a process has it in use. False if one has, or that fails.
bool removeUnlessInUse(const std::wstring& path);

// Makes the folder and those above it that are missing. No error if it is there already.
std::error_code createFolders(const std::wstring& folder);

}  // namespace platform
