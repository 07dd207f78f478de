// Files that processes lock as a whole to settle who may do what. A lock goes with the process that holds it, however
// that ends; it keeps out only who asks for it.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace platform {

// An open lock file. Each object has a lock of its own, two objects of one process too; only a forked process shares
// its parent's. Operations throw win_interprocess::interprocess_exception if the system refuses for another reason than
// someone else's lock.
class FileLock {
 public:
  enum class IfMissing { make, fail };

  // Opens the file, an empty one. Where the system can refuse that while someone else has it open, it is asked three
  // times, a quarter of a second apart. Throws interprocess_exception if it cannot be opened.
  FileLock(const std::string& narrowPath, IfMissing ifMissing);

  // Gives up the lock and closes the file; in a forked process it only closes it.
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Takes the lock unless someone else's is in the way: any for an exclusive one, an exclusive one for a shared one.
  // The object must not hold one yet.
  bool tryShared();
  bool tryExclusive();

  // The same, waiting until the lock is had; false when `most` has passed without it.
  bool waitShared(std::chrono::milliseconds most);
  bool waitExclusive(std::chrono::milliseconds most);

  // Gives up the lock, that of the parent or of forked processes with it.
  void unlock();

  // Whether the open file is the one that has the name `narrowPath`, and has not been removed.
  bool isNamed(const std::string& narrowPath) const;

 private:
  struct File;

  std::unique_ptr<File> file_;
};

}  // namespace platform
