// FileManager: the file-system calls the kit needs, through Env::current().
//
// Files the kit makes for one user are private: directories are created 0700
// and files 0600, never through a symbolic link at the final component, and
// every write goes through a temporary file in the same directory that is
// then renamed over the target, so a reader (or a crash) never sees half a
// file. The temporary is named "." + the file's name + ".tmp-XXXXXX"; one
// left behind by a killed writer is recognised by isTemporaryFileName().
//
// Reads never block on a special file: a FIFO, a device or a socket at the
// path reads as missing. The kit's own state files (cache entries and index,
// user defaults, pasteboards) are read with FollowLinks::No, so that a
// symbolic link planted under one of their names reads as missing too
// rather than showing a file from elsewhere.
//
// All functions are thread-safe. Those that can fail return a Result: it
// reads like the bool or optional it replaces, and error() says which errno
// on which path.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Env/Env.h>

namespace NIMB_EXPORT nimb {

class FileManager {
 public:
  // The user's caches directory: $XDG_CACHE_HOME when set to an absolute
  // path, else $HOME/.cache, else the password database's home + "/.cache".
  static std::string cachesDirectory();
  // The user's data directory: $XDG_DATA_HOME when set to an absolute path,
  // else $HOME/.local/share, else the password database's home + "/.local/share".
  static std::string dataDirectory();
  // The user's configuration directory: $XDG_CONFIG_HOME when set to an
  // absolute path, else $HOME/.config, else the password database's home + "/.config".
  static std::string configDirectory();
  // The process name: the last component of argv[0].
  static std::string processName();

  // `dir` + "/" + `component` (no doubled slash).
  static std::string appendingPathComponent(std::string_view dir, std::string_view component);

  static bool fileExists(const std::string& path);
  static bool isDirectory(const std::string& path);
  // Whether `path` is a regular file (a link to one counts only with
  // FollowLinks::Yes).
  static bool isRegularFile(const std::string& path, FollowLinks follow = FollowLinks::Yes);

  // Creates `path` (0700), and its missing parents when `intermediates` is
  // set. Succeeds when the directory exists afterwards.
  static Result<void> createDirectory(const std::string& path, bool intermediates = true);

  // The whole contents of a regular file; fails when it cannot be read,
  // is no regular file, or is a symbolic link and `follow` is No.
  static Result<Data> contentsAtPath(const std::string& path,
                                     FollowLinks follow = FollowLinks::Yes);

  // Writes `bytes` to `path` through a temporary file (mode 0600) in the same
  // directory and a rename. Replaces an existing file. On failure `path` is
  // left as it was.
  static Result<void> writeAtomically(const std::string& path, std::span<const std::uint8_t> bytes);
  static Result<void> writeAtomically(const std::string& path, std::string_view bytes);

  // Copies the regular file at `from` to `to`, which must not exist yet
  // (an existing `to` makes the copy fail and stay untouched). The copy is
  // assembled in a temporary file and linked into place, so `to` appears
  // whole or not at all.
  static Result<void> copyItem(const std::string& from, const std::string& to);

  // Removes the file, or the directory with everything in it, at `path`.
  // Fails when nothing was removed.
  static Result<void> removeItem(const std::string& path);

  // Whether `name` has the shape of the temporary files writeAtomically()
  // and copyItem() make: "." + a name + ".tmp-" + six letters or digits.
  static bool isTemporaryFileName(std::string_view name);
  // Removes, in `dir` on `env`, the temporary files that writes killed
  // midway left: regular files named as isTemporaryFileName() says and
  // untouched for `olderThanSeconds` by env's clock, except those named in
  // `keep` (a name of that shape may be in use as something else). Links
  // are never followed.
  static void removeAbandonedTemporaries(Env& env, const std::string& dir, double olderThanSeconds,
                                         const std::set<std::string>& keep = {});
};

}  // namespace nimb
