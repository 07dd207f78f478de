// Files that other processes may hold open, too, and folders. New files and folders are their user's alone where the
// system has such rights.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
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

// Removes from `folder` and the folders below what processes left of texts that they were killed while writing.
void removeUnfinishedTexts(const std::wstring& folder);

// An empty file that no one else can open in this way while the stream lives. Null if someone has it open, or it cannot
// be made.
Stream openLockFile(const std::wstring& path);

// Opens a file, made empty if it is missing, only to have it open: where the system keeps open files from being
// removed, nobody can remove it while the stream lives. Null if it cannot be opened or made.
Stream openToKeep(const std::string& narrowPath);

// Makes a file of `bytes` zero bytes (at least one). Its room on the disk is taken at once where the file system can do
// that. Fails with std::errc::file_exists if there is one of that name; on any other failure nothing is left of it.
std::error_code createZeroFile(const std::string& narrowPath, std::uint64_t bytes);

// Removes a file that belongs to this process. False if that fails.
bool removeFile(const std::string& narrowPath);

// Removes a file unless a process has it in use, and calls `removeCompanions` to remove what is of no use without it.
// False if one has, or the file cannot be removed. Where the system allows, the companions go first:
// a process that is killed in between leaves the file.
bool removeUnlessInUse(
    const std::wstring& path, const std::function<void()>& removeCompanions = [] {});

// Bytes of a regular file; nothing if there is none of that name, what a link leads to aside.
std::optional<std::uint64_t> fileBytes(const std::string& narrowPath);

// Equal for paths that lead to one file, whatever way they take; the path itself if there is none.
std::wstring fileKey(const std::wstring& path);

// Makes the folder and those above it that are missing. No error if it is there already.
std::error_code createFolders(const std::wstring& folder);

}  // namespace platform
