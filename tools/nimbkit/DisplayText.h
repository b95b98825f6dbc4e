// DisplayText: text from outside (cache keys, command-line words) made safe
// to print as one field of one line on a terminal.
//
// Used by `nimbkit cache list` and by the tool's error messages. Pure
// function; any thread.
#pragma once

#include <string>
#include <string_view>

namespace nimbkit {

// `text` with every character that could break a line, a field or the
// terminal written as a backslash escape, so the result reads back
// unambiguously:
//   - "\\" for a backslash, "\t", "\n" and "\r";
//   - "\xHH" for the other C0 controls, DEL, and each byte that is not part
//     of valid UTF-8;
//   - "\uHHHH" for the C1 controls (U+0080-U+009F, which terminals obey as
//     escape sequences) and the invisible direction marks and overrides
//     (U+061C, U+200E, U+200F, U+202A-U+202E, U+2066-U+2069), which would
//     reorder what is printed after them.
std::string escapeForDisplay(std::string_view text);

}  // namespace nimbkit
