// Decodes arbitrary text with every named encoder. Whatever decodes must
// come back unchanged through encode and decode again; nothing may crash.
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include <NimbFoundation/Encode/VQStringEncoding.h>

using nimb::VQStringEncoding;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto encoders = [] {
    std::vector<std::shared_ptr<VQStringEncoding>> all;
    for (auto name : VQStringEncoding::encodingNames())
      all.push_back(VQStringEncoding::encodingNamed(name));
    return all;
  }();
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const auto& encoder : encoders) {
    auto bytes = encoder->decode(text);
    if (!bytes) continue;
    auto again = encoder->decode(encoder->encode(*bytes));
    if (!again || *again != *bytes) std::abort();
  }
  return 0;
}
