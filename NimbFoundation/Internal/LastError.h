// LastError: the reason a FileManager call that answers bool or optional
// failed, as a SystemError for the Result of the storage classes.
//
// Usage: clear errno, make the call, and on failure call lastError() before
// anything else can change errno:
//   errno = 0;
//   if (!FileManager::writeAtomically(path, bytes)) return detail::lastError(path);
// A call that failed without setting errno gives EIO.
#pragma once

#include <cerrno>
#include <string>

#include <NimbFoundation/Platform/Core/Result.h>

namespace nimb::detail {

inline SystemError lastError(const std::string& path) {
  const int code = errno;
  return SystemError{code != 0 ? code : EIO, path};
}

}  // namespace nimb::detail
