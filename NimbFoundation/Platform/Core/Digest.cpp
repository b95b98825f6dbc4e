#include <NimbFoundation/Platform/Core/Digest.h>

#include <openssl/evp.h>

namespace nimb {

Digest::MD5Digest Digest::md5(std::span<const std::uint8_t> bytes) {
  // Fetched once: EVP_md5() looks the algorithm up in the provider table,
  // under a lock, on every digest, which costs more than hashing a URL.
  // MD5 is always present in OpenSSL's default provider; should the fetch
  // fail all the same, the implicit lookup still works.
  static EVP_MD* const fetched = EVP_MD_fetch(nullptr, "MD5", nullptr);
  MD5Digest out{};
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), out.data(), &length, fetched ? fetched : EVP_md5(),
             nullptr);
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
