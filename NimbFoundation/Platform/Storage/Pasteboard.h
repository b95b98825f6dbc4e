// Pasteboard: a named, per-user store of typed byte buffers that separate
// processes (different applications of the same user) open, read and write,
// possibly at the same time. The shared device identifier keeps its copies
// in the pasteboards "org.SharedUDID.slot.0" to "org.SharedUDID.slot.99",
// each holding one item of type "org.SharedUDID".
//
// How it is stored:
//   - One folder, storeDirectory(), made 0700, with one file (0600) per
//     pasteboard. The file name is the pasteboard name with every byte
//     outside [A-Za-z0-9_.-], and a leading '.', written as %XX (two upper
//     case hex digits), followed by ".pasteboard". So no name reaches outside
//     the folder, distinct names never share a file, and no pasteboard file
//     starts with '.'. A name that is empty, or whose file name would be
//     longer than NAME_MAX, is refused.
//   - The folder also holds ".lock". Every read-modify-write (open with
//     create, changing data or persistence, removal, clean-up of orphans)
//     holds an exclusive flock on it, so processes and threads never lose
//     each other's changes. Every write is a new file renamed into place, so
//     a reader without the lock always sees a whole file.
//   - A file is a binary property list (version 1.0) dictionary:
//       "Version"         integer, 1
//       "Persistent"      boolean
//       "OwnerProcess"    integer, pid of the process that owns it
//       "OwnerStartTime"  integer, that process's start time in clock ticks
//                         since boot (field 22 of /proc/<pid>/stat)
//       "OwnerBoot"       string, /proc/sys/kernel/random/boot_id then
//       "Items"           array of dictionaries {"Type": string, "Data": data}
//     A file that is no such dictionary is damaged: it reads as a persistent
//     pasteboard with no data, and the next write replaces it.
//
// Lifetime: a pasteboard made by pasteboardWithName(name, true) is not
// persistent; its owner is the process that made it (or the process that
// last made a persistent one non-persistent). It goes away when the owner
// ends: opening it once the owner is gone (no such pid, a pid reused by a
// process with another start time, or another boot) treats it as missing and
// deletes it, and reads through an existing handle give nothing. The owner
// also deletes its own non-persistent pasteboards when it exits normally
// (best effort: not after _exit, a crash or a signal). A persistent
// pasteboard stays until removePasteboardWithName(). Owners are checked by
// pid, so processes in different pid namespaces should not share a folder.
//
// A handle names a pasteboard; it holds no contents. Once the pasteboard is
// gone (removed, or its owner ended), setData() fails and setPersistent()
// does nothing; open it again with create to make a new one.
//
// Thread rule: safe from any thread; nothing is cached in memory, every call
// goes to the store.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Result.h>
#include <NimbFoundation/Platform/Core/Value.h>

namespace NIMB_EXPORT nimb {

class Pasteboard {
  struct Passkey {};

 public:
  // The folder: Env::current()->pasteboardDirectory(), on Linux
  // FileManager::dataDirectory() + "/NimbFoundation/Pasteboards".
  static std::string storeDirectory();

  // Opens the pasteboard called `name`; with `create`, makes it (not
  // persistent, owned by this process) when missing. nullptr when it is
  // missing and not created, when the name is refused, or when it cannot be
  // made.
  static std::shared_ptr<Pasteboard> pasteboardWithName(std::string_view name, bool create);
  // Deletes the pasteboard. Fails with ENOENT when there was none (the path
  // is the pasteboard's file, or the folder when the store has none), EINVAL
  // when the name is refused, or the reason the store cannot be changed.
  static Result<void> removePasteboardWithName(std::string_view name);

  Pasteboard(Passkey, std::string name, std::string path);
  Pasteboard(const Pasteboard&) = delete;
  Pasteboard& operator=(const Pasteboard&) = delete;

  const std::string& name() const { return name_; }

  // As stored now; false once the pasteboard is gone.
  bool isPersistent() const;
  // Written to the store at once. Making a persistent pasteboard
  // non-persistent makes this process its owner.
  void setPersistent(bool persistent);

  // The bytes of the item of `type`, read from the store each time (another
  // process may have written); nullopt when there is none.
  std::optional<Data> dataForPasteboardType(std::string_view type) const;
  // Replaces the pasteboard's whole contents with this one item. Fails with
  // ENOENT (the pasteboard's file) when the pasteboard is gone, EINVAL when
  // `type` is not UTF-8 without NUL, or the reason the store cannot be
  // written.
  Result<void> setData(const Data& data, std::string_view type);

 private:
  std::string name_;
  std::string path_;  // the pasteboard's file
};

}  // namespace nimb
