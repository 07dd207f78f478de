// Where programs and their data are. Paths are wide, with "/" between the components; a folder's path ends with "/".
#pragma once

#include <filesystem>
#include <string>

namespace platform {

// The running program. Throws std::runtime_error if the system does not say.
std::wstring executablePath();

// The folder for the data of programs that belongs to the user and to this machine. It need not exist.
std::wstring localDataFolder();

// Whether programs may keep files of their own in `folder`, the folder they are started from.
bool mayHoldHostFiles(const std::wstring& folder);

// The form in which the file calls that know no wide strings take `path`. Throws std::range_error, with the path, if
// that form cannot hold all of its characters.
std::string narrowPath(const std::wstring& path);

// The way back. Throws std::range_error if it is no path in that form.
std::wstring fromNarrowPath(const std::string& narrowPath);

// `path` as std::filesystem takes it. What the standard library makes of a wide string by itself fails for all but
// ASCII on some systems, and so does the way back.
std::filesystem::path filesystemPath(const std::wstring& path);

// The way back. Throws std::range_error if the path is no text.
std::wstring widePath(const std::filesystem::path& path);

}  // namespace platform
