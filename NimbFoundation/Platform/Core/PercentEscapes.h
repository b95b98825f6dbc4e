// PercentEscapes: writing bytes as "%XX" escapes in URL text, and reading
// them back, as the platform's URL string functions do.
//
// Escaping works on the UTF-8 bytes of the text. A byte is escaped when it
// may not stand in a URL at all (controls, space, non-ASCII, and
// `"<>\^`{|}`), or when the caller names it as a legal character to escape
// too, unless the caller names it to leave alone. Letters, digits and
// "-._~!*'();:@&=+$,/?#[]%" are legal. Hex digits come out upper case.
//
// VQUtils builds urlEncode() and urlDecode() on these. Pure functions, safe
// from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class PercentEscapes {
 public:
  // The characters of `legalToEscape` and `leaveUnescaped` are ASCII; other
  // bytes in them are ignored.
  static std::string addingPercentEscapes(std::string_view text,
                                          std::string_view leaveUnescaped = "",
                                          std::string_view legalToEscape = "");
  // Decodes every escape except those of an ASCII character named in
  // `leaveEscaped`, which stay as written. A "+" is not a space. nullopt
  // when a "%" is not followed by two hex digits, or when the result is not
  // well-formed UTF-8.
  static std::optional<std::string> replacingPercentEscapes(std::string_view text,
                                                            std::string_view leaveEscaped = "");
};

}  // namespace nimb
