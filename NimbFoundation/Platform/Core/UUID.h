// UUID: 128-bit identifiers (RFC 4122) and the kit's 32-bit random source.
//
// Random UUIDs (version 4) identify applications and feed fresh device
// identifiers; name-based UUIDs (version 5) give the per-vendor device
// identifier, stable for one machine and one vendor. Randomness comes from
// the kernel (getrandom). Safe from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class UUID {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  // A new random UUID.
  static UUID create();
  // The version-5 UUID of `name` within `nameSpace` (SHA-1 based).
  static UUID nameBased(const UUID& nameSpace, std::string_view name);
  // Parses "8-4-4-4-12" hex (either case) or 32 plain hex digits.
  static std::optional<UUID> fromString(std::string_view text);

  explicit UUID(const Bytes& bytes) : bytes_(bytes) {}
  const Bytes& bytes() const { return bytes_; }
  // The canonical form: 36 characters, upper-case hex, hyphenated 8-4-4-4-12.
  std::string UUIDString() const;

  friend bool operator==(const UUID&, const UUID&) = default;

 private:
  Bytes bytes_;
};

// A uniformly random 32-bit number, as arc4random() gives.
std::uint32_t random32();

}  // namespace nimb
