#include <NimbFoundation/Platform/Core/UUID.h>

#include <NimbFoundation/Internal/HexDigit.h>

#include <openssl/evp.h>
#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

namespace nimb {

namespace {

// Fills `out` from the kernel's generator. getrandom() only fails when
// interrupted or on kernels without it; the fallback keeps identifiers
// unique rather than failing the caller.
void randomBytes(std::uint8_t* out, std::size_t n) {
  std::size_t done = 0;
  while (done < n) {
    const ssize_t got = ::getrandom(out + done, n - done, 0);
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (got < 0 && errno == EINTR) {
      continue;
    } else {
      static thread_local std::mt19937_64 fallback{std::random_device{}()};
      for (; done < n; ++done) out[done] = static_cast<std::uint8_t>(fallback());
    }
  }
}

}  // namespace

UUID UUID::create() {
  Bytes b;
  randomBytes(b.data(), b.size());
  b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return UUID(b);
}

UUID UUID::nameBased(const UUID& nameSpace, std::string_view name) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, EVP_sha1(), nullptr);
  EVP_DigestUpdate(ctx, nameSpace.bytes_.data(), nameSpace.bytes_.size());
  EVP_DigestUpdate(ctx, name.data(), name.size());
  EVP_DigestFinal_ex(ctx, digest, &length);
  EVP_MD_CTX_free(ctx);
  Bytes b;
  std::memcpy(b.data(), digest, b.size());
  b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x50);  // version 5
  b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);
  return UUID(b);
}

std::optional<UUID> UUID::fromString(std::string_view text) {
  const bool hyphenated = text.size() == 36;
  if (!hyphenated && text.size() != 32) return std::nullopt;
  Bytes b{};
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (hyphenated && (i == 8 || i == 13 || i == 18 || i == 23)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const int v = detail::hexDigitValue(text[i]);
    if (v < 0) return std::nullopt;
    b[nibble / 2] = static_cast<std::uint8_t>(b[nibble / 2] | (nibble % 2 ? v : v << 4));
    ++nibble;
  }
  return UUID(b);
}

std::string UUID::UUIDString() const {
  char out[37];
  std::snprintf(
      out, sizeof out, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
      bytes_[0], bytes_[1], bytes_[2], bytes_[3], bytes_[4], bytes_[5], bytes_[6], bytes_[7],
      bytes_[8], bytes_[9], bytes_[10], bytes_[11], bytes_[12], bytes_[13], bytes_[14], bytes_[15]);
  return out;
}

std::uint32_t random32() {
  std::uint32_t v;
  randomBytes(reinterpret_cast<std::uint8_t*>(&v), sizeof v);
  return v;
}

}  // namespace nimb
