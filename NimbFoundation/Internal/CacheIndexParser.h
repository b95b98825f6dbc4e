// parseCacheIndexXml: reads VQCache's index file ("VQCache.plist") straight
// into its in-memory index, without the generic property-list tree.
//
// VQCache calls it at start-up and when a save merges with the index on
// disk; an index of hundreds of thousands of entries must load in a small
// fraction of what the generic path (libplist, then Value) costs.
//
// It takes exactly the XML that libplist writes for a dictionary of keys to
// dates, whichever process wrote it: the XML declaration, the DOCTYPE and
// <plist version="1.0"> word for word as they write them, one <dict> of
// <key>TEXT</key><date>STAMP</date> pairs separated by white space,
// </plist>. Key text may hold the escapes &amp; &lt; &gt; &quot; &apos; and
// decimal or hexadecimal character references; a date is
// "YYYY-MM-DDTHH:MM:SSZ" in UTC. A key given twice keeps its last date.
// Anything else (another prolog, a binary index, comments, a value that is
// no date, a fraction of a second, a damaged or truncated file, a key that
// is not UTF-8) answers nullopt, and the caller then reads the file the
// generic way, so every index reads exactly as it did before.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <NimbFoundation/Internal/CacheIndex.h>

namespace nimb::detail {

std::optional<CacheIndex> parseCacheIndexXml(std::span<const std::uint8_t> bytes);

}  // namespace nimb::detail
