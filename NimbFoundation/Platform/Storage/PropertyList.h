// PropertyList: reading and writing property lists on libplist, in the
// platform's XML form and its binary form version 1.0.
//
// Everything here is a pure function of its arguments and safe from any
// thread. Bytes from outside (files, the network, archives) may be anything:
// parsing never crashes and answers nullopt for what is no property list.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Result.h>
#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Env/FileManager.h>

namespace NIMB_EXPORT nimb {

// The platform's format numbers.
enum class PropertyListFormat { Xml = 100, BinaryV1_0 = 200 };

class PropertyList {
 public:
  // Parses XML or binary, whichever the bytes are; reports which in `format`.
  static std::optional<Value> parse(std::span<const std::uint8_t> bytes,
                                    PropertyListFormat* format = nullptr);

  // Serialises `value`. Fails (nullopt) for what a property list cannot hold:
  // the null marker anywhere inside, a string that is not UTF-8 or holds a
  // NUL, a UID in the XML form (or above 32 bits in binary), or nesting
  // deeper than 512 containers. Dates keep microseconds in binary and whole
  // seconds in XML, and are clamped to the years libplist can store
  // (about 1933 to 2069).
  static std::optional<Data> serialize(const Value& value, PropertyListFormat format);

  // The dictionary stored in the file at `path`, in either format. Fails with
  // the errno of the read when the file is missing, unreadable or no regular
  // file (ELOOP for a link under FollowLinks::No), and with EBADMSG when it
  // holds no property list or one that is not a dictionary; the error's path
  // is `path`. The kit's own state files pass FollowLinks::No.
  static Result<Dictionary> dictionaryWithContentsOfFile(const std::string& path,
                                                         FollowLinks follow = FollowLinks::Yes);

  // Writes `dict` as an XML property list to `path` atomically (see
  // FileManager::writeAtomically). Fails with EINVAL when `dict` is nothing
  // a property list can hold, else with the errno of the failed write
  // (ENOENT when the folder is missing, EACCES when it is not writable...).
  static Result<void> writeToFile(const Dictionary& dict, const std::string& path);
};

}  // namespace nimb
