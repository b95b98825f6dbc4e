// Decodes arbitrary text with every named encoder. Whatever decodes must
// come back unchanged through encode and decode again; nothing may crash.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <NimbFoundation/Encode/VQStringEncoding.h>

using nimb::VQStringEncoding;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::shared_ptr<VQStringEncoding> encoders[] = {
      VQStringEncoding::binaryStringEncoding(),
      VQStringEncoding::hexStringEncoding(),
      VQStringEncoding::rfc4648Base32StringEncoding(),
      VQStringEncoding::rfc4648Base32HexStringEncoding(),
      VQStringEncoding::crockfordBase32StringEncoding(),
      VQStringEncoding::rfc4648Base64StringEncoding(),
      VQStringEncoding::rfc4648Base64WebsafeStringEncoding(),
  };
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const auto& encoder : encoders) {
    auto bytes = encoder->decode(text);
    if (!bytes) continue;
    auto again = encoder->decode(encoder->encode(*bytes));
    if (!again || *again != *bytes) std::abort();
  }
  return 0;
}
