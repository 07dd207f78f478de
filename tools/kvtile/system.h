// What the program needs from the operating system beyond the standard library. Another system is another
// system_*.cpp; nothing else in this folder includes a system header.
#ifndef KVTILE_SYSTEM_H
#define KVTILE_SYSTEM_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace kvtile::system {

bool stderrIsTerminal();

// Columns of the terminal behind stderr; 80 if it does not tell.
int terminalColumns();

// From now on a request to stop (interrupt, terminate, hang-up) sets a flag instead of ending the process, and a broken
// pipe or a file size limit shows as a failed write. Requests that the parent process chose to ignore stay ignored.
void catchStopRequests();

// True once such a request has arrived.
bool stopRequested() noexcept;

enum class Input { Line, End, StopRequest };

// Waits until a line of standard input or its end has come, or a request to stop. With `readsInput` false for the
// request only. What is typed while the terminal belongs to another program is left to that one.
Input waitForInput(bool readsInput);

bool stdinIsTerminal();

void pause(std::chrono::milliseconds time);

unsigned long processId();

// The most memory that the program has had resident at one time, in bytes; 0 if the system does not tell.
std::uint64_t peakMemoryBytes();

enum class FileKind { Missing, Regular, Folder, Other };

// What `path` names, links followed; Missing also where it cannot be looked at. `error` receives the errno value then,
// else 0.
FileKind kindOf(const std::string& path, int& error);

// True if there is an entry called `path`, a link that leads nowhere included.
bool nameExists(const std::string& path);

// True if both paths lead to the same existing file.
bool sameFile(const std::string& a, const std::string& b);

// The folder part of `path` ("." for a bare name) and the rest.
std::string folderOf(const std::string& path);
std::string nameOf(const std::string& path);

// Where programs keep data of the user's. Ends with a slash.
std::string userDataFolder();

// What others' locks on a whole file are. NoFile where there is none, Unknown where it cannot be looked at.
enum class LockUse { None, Shared, Exclusive, NoFile, Unknown };

// Found out by locking the file for a moment, which shuts out who tries to lock it just then.
LockUse lockUseOf(const std::string& path);

// An exclusive lock on a whole file, for as long as the object lives.
class FileLock {
 public:
  enum class Outcome { Taken, InUse, NoFile, Failed };

  FileLock() = default;
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Takes it unless another process has a lock on the file, which is not made. `error` receives the errno value of
  // Failed.
  Outcome tryTake(const std::string& path, int& error);

 private:
  int descriptor_ = -1;
};

// Binary streams, null with errno set on failure. createExclusively fails with EEXIST where the name is taken.
std::FILE* openForReading(const std::string& path);
std::FILE* createExclusively(const std::string& path);

// 64-bit positions; false or -1 with errno set on failure.
bool seek(std::FILE* stream, std::int64_t offset, int whence);
std::int64_t tell(std::FILE* stream);

// Waits until what was flushed to `stream` is on the disk. 0 or an errno value.
int waitForDisk(std::FILE* stream);

// Gives the file behind `stream` the access rights of the file `path`, as far as that is allowed.
void copyPermissions(const std::string& path, std::FILE* stream);

// Renames a file within a folder, in one step for everyone who looks. 0 or an errno value. renameToFreeName never
// replaces: EEXIST where the name is taken.
int renameToFreeName(const std::string& from, const std::string& to);
int renameOver(const std::string& from, const std::string& to);

}  // namespace kvtile::system

#endif
