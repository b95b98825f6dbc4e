#include <NimbFoundation/Platform/Core/Digest.h>

#include <openssl/evp.h>

namespace nimb {

Digest::MD5Digest Digest::md5(std::span<const std::uint8_t> bytes) {
  MD5Digest out{};
  unsigned int length = 0;
  // One-shot EVP digest; MD5 is always present in OpenSSL's default provider.
  EVP_Digest(bytes.data(), bytes.size(), out.data(), &length, EVP_md5(), nullptr);
  return out;
}

Digest::MD5Digest Digest::md5(std::string_view bytes) {
  return md5(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

std::string Digest::hex(const MD5Digest& digest, bool upperCase) {
  const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string out;
  out.reserve(32);
  for (auto b : digest) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string Digest::md5HexOfText(std::string_view text, bool upperCase) {
  return hex(md5(text.substr(0, text.find('\0'))), upperCase);
}

}  // namespace nimb
