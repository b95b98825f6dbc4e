// Digest: MD5 (RFC 1321) of a byte buffer, on OpenSSL's EVP interface.
//
// The kit's cache keys, fresh device identifiers and report fields all hash
// with it (VQProtocolData::md5Value, VQSharedUDID, VQUtils, NimbKit::md5).
// Pure function; safe from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class Digest {
 public:
  using MD5Digest = std::array<std::uint8_t, 16>;

  static MD5Digest md5(std::span<const std::uint8_t> bytes);
  static MD5Digest md5(std::string_view bytes);
  // The 32 hex digits of a digest, upper or lower case.
  static std::string hex(const MD5Digest& digest, bool upperCase);
  // The hex digits of the MD5 of `text` up to its first NUL (all of it when
  // it has none), as the kit's md5 helpers answer.
  static std::string md5HexOfText(std::string_view text, bool upperCase);
};

}  // namespace nimb
