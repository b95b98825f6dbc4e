// KeyedArchive: the platform's keyed-archive format (what NSKeyedArchiver
// writes) for values made of dictionaries with string keys, arrays, strings,
// integers, reals, booleans, dates and data.
//
// The shared device identifier stores each application's record this way in
// pasteboards that other processes read, so what is written here reads like
// an archive the platform wrote, and bytes from elsewhere may be anything:
// reading never crashes, never loops, and answers nullopt for what is no
// well-formed archive of such values.
//
// The archive is a binary property list:
//   { "$archiver": "NSKeyedArchiver", "$version": 100000,
//     "$top": { "root": UID }, "$objects": [ "$null", ... ] }
// UID(n) names $objects[n]; UID(0) is nil. Strings, numbers, booleans and
// data sit in $objects as they are. Dictionaries ({NS.keys, NS.objects}),
// arrays ({NS.objects}) and dates ({NS.time}: seconds since 2001) are objects
// whose "$class" names a class object {$classname, $classes}; each class
// object is written once and shared. Equal values are not shared at the
// archive level (the binary property list shares their bytes anyway), so
// every value read from an archive written here costs no more memory than
// the archive's own objects.
//
// Reading also takes NSMutableDictionary, NSMutableArray, and the NSString,
// NSMutableString, NSData and NSMutableData objects ({NS.string} and
// {NS.bytes}) the platform sometimes writes, and objects shared between
// several places. It refuses UIDs outside $objects, cycles, keys that are no
// strings, a key repeated in one dictionary, unknown classes, and nil
// anywhere in the value: the platform's collections cannot hold nil, and the
// null marker has no place in an archive, so everything read can be written
// back. Nesting is limited to 512 containers, and shared objects may expand
// to no more than 16 times the memory of the archive's objects plus 1 MiB.
//
// Everything here is a pure function of its arguments and safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Value.h>

namespace NIMB_EXPORT nimb {

class KeyedArchive {
 public:
  // The archive of `root` as a binary property list; nullopt for what cannot
  // be archived: the null marker or a UID anywhere inside, a string (or key)
  // that is not UTF-8 or holds a NUL, nesting deeper than 512 containers.
  static std::optional<Data> archivedDataWithRootObject(const Value& root);

  // The root object of an archive; nullopt for bytes that are not a
  // well-formed keyed archive of the values above.
  static std::optional<Value> unarchiveObjectWithData(std::span<const std::uint8_t> bytes);
};

}  // namespace nimb
