#include <NimbFoundation/Platform/Env/FileLock.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

namespace nimb {

FileLock::FileLock(const std::string& path, std::optional<std::chrono::milliseconds> wait)
    : path_(path) {
  do {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  } while (fd_ < 0 && errno == EINTR);
  if (fd_ < 0) {
    error_ = errno;
    return;
  }
  if (!wait) {
    int r;
    do {
      r = ::flock(fd_, LOCK_EX);
    } while (r != 0 && errno == EINTR);
    if (r == 0) state_ = State::Held;
    error_ = r == 0 ? 0 : errno;
    return;
  }
  // Polled rather than blocked on, so that the wait has an end.
  const auto deadline = std::chrono::steady_clock::now() + *wait;
  auto pause = std::chrono::milliseconds(1);
  while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      error_ = errno;
      return;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      error_ = EWOULDBLOCK;
      state_ = State::Busy;
      return;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(50));
  }
  state_ = State::Held;
}

FileLock::~FileLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the only descriptor releases the lock
}

}  // namespace nimb
