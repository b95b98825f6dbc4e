// FileLock: an exclusive advisory lock (flock) on a lock file, held for the
// object's life, the way processes that share files on disk take turns.
//
// The lock file is created when missing (0600, never through a symbolic
// link) and left in place. Each FileLock opens the file anew, so threads of
// one process exclude each other as well as other processes do. The file is
// opened for writing, which lets NFS's emulation of flock work too.
//
// Callers: Pasteboard (every change of its folder) and VQCache (every index
// save). Thread rule: an object belongs to the thread that made it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Result.h>

namespace NIMB_EXPORT nimb {

class FileLock {
 public:
  enum class State {
    Held,         // this object holds the lock
    Busy,         // another holder kept it for the whole wait
    Unsupported,  // the file cannot be opened or locked at all
  };

  // Takes the lock on the file at `path`: waits as long as it takes, or at
  // most `wait` (zero: one attempt).
  explicit FileLock(const std::string& path,
                    std::optional<std::chrono::milliseconds> wait = std::nullopt);
  ~FileLock();  // lets go
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  State state() const { return state_; }
  bool held() const { return state_ == State::Held; }
  // Why the lock is not held: the errno of the failed open or flock
  // (EWOULDBLOCK when another holder kept it), with the lock file's path.
  SystemError failure() const { return {error_, path_}; }

 private:
  int fd_ = -1;
  State state_ = State::Unsupported;
  int error_ = 0;
  std::string path_;
};

}  // namespace nimb
