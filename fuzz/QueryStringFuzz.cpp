// Feeds arbitrary text to VQUtils::dictionaryWithQueryString. Whatever
// parses must survive a trip through queryStringWithDictionary and back
// unchanged, and every pair must come from a piece of the input that holds
// exactly one "=".
#include <NimbFoundation/Utils/VQUtils.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using nimb::VQUtils;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto parsed = VQUtils::dictionaryWithQueryString(text);
  if (!parsed) return 0;
  std::size_t pieces = 1;
  for (char c : text) pieces += c == '&';
  if (parsed->size() > pieces) std::abort();
  for (const auto& [key, value] : *parsed) {
    if (!value.asString()) std::abort();
    // Keys go out unescaped, so only keys without "&" or "=" come back.
    if (key.find_first_of("&=%") != std::string::npos) return 0;
  }
  auto query = VQUtils::queryStringWithDictionary(*parsed);
  if (!query) std::abort();
  auto again = VQUtils::dictionaryWithQueryString(*query);
  if (!again || *again != *parsed) std::abort();
  return 0;
}
