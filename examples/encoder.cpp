// Text forms of bytes: base 2, 16, 32 and 64 with VQStringEncoding, the MD5
// digests the kit uses as cache keys, and the AES token of the reporting
// protocol, decrypted again with OpenSSL as the receiving server would.
// Every line shows an input, what the kit made of it and, where
// the answer is known, the value from the standard so you can check it by
// eye:
//   encoder [text, default "foobar"]
#include <cstdio>
#include <string>

#include <openssl/evp.h>

#include <NimbFoundation/Encode/VQStringEncoding.h>
#include <NimbFoundation/NimbKit+String.h>
#include <NimbFoundation/Utils/VQUtils.h>

namespace {

int failures = 0;

// Prints one result and, when `expected` is given, whether it matches.
void show(const char* what, const std::string& got, const char* expected = nullptr) {
  std::printf("%-22s %s", what, got.c_str());
  if (expected && got == expected) {
    std::printf("  (ok)");
  } else if (expected) {
    std::printf("  (expected %s)", expected);
    ++failures;
  }
  std::printf("\n");
}

// What the receiving server does with a token: web-safe base 64 back to
// bytes, then AES-256-CBC decryption with the same key and vector rules as
// AES256Encrypt (the secret padded with zero bytes to 32, its first 16
// bytes as the vector). Done here with OpenSSL, as the kit only encrypts.
std::string decrypt(const std::string& token, const std::string& secret) {
  const auto bytes = nimb::VQUtils::base64WebSafeDecode(token);
  if (!bytes) return "<not base 64>";
  unsigned char key[32] = {};
  secret.copy(reinterpret_cast<char*>(key), sizeof key);
  std::string out(bytes->size() + 16, '\0');
  int n = 0, tail = 0;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  const bool ok =
      ctx &&
      EVP_DecryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key,
                         reinterpret_cast<const unsigned char*>(secret.data())) == 1 &&
      EVP_DecryptUpdate(ctx, reinterpret_cast<unsigned char*>(out.data()), &n, bytes->data(),
                        static_cast<int>(bytes->size())) == 1 &&
      EVP_DecryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(out.data()) + n, &tail) == 1;
  EVP_CIPHER_CTX_free(ctx);
  return ok ? out.substr(0, static_cast<std::size_t>(n + tail)) : "<does not decrypt>";
}

}  // namespace

int main(int argc, char** argv) {
  const std::string text = argc > 1 ? argv[1] : "foobar";
  const bool known = text == "foobar";  // RFC 4648 section 10 uses "foobar"
  auto expect = [known](const char* value) { return known ? value : nullptr; };
  std::printf("input                  \"%s\"\n", text.c_str());

  // 1. Encoders come ready-made by name (or from any alphabet of 2..128
  // ASCII characters through stringEncodingWithString). Each call makes a
  // fresh encoder; once set up, one may serve many threads.
  struct Named {
    const char* name;
    const char* expected;
  };
  for (const Named n : {Named{"binary", "011001100110111101101111011000100110000101110010"},
                        Named{"hex", "666F6F626172"}, Named{"base32", "MZXW6YTBOI======"},
                        Named{"base64", "Zm9vYmFy"}, Named{"base64url", "Zm9vYmFy"}}) {
    auto encoding = nimb::VQStringEncoding::encodingNamed(n.name);
    const std::string encoded = encoding->encodeString(text);
    show(n.name, encoded, expect(n.expected));
    // Decoding gives the bytes back; stringByDecoding also checks they are
    // UTF-8 and answers nullopt for text the encoder does not accept.
    show("  decoded", encoding->stringByDecoding(encoded).value_or("<refused>"), text.c_str());
  }

  // 2. Decoding is strict about characters: whitespace is refused unless the
  // encoder is told to skip it.
  auto base64 = nimb::VQStringEncoding::rfc4648Base64StringEncoding();
  show("\"Zm9v YmFy\" strict", base64->stringByDecoding("Zm9v YmFy").value_or("<refused>"),
       "<refused>");
  base64->ignoreCharacters(" \n");
  show("  ignoring spaces", base64->stringByDecoding("Zm9v YmFy").value_or("<refused>"),
       expect("foobar"));

  // 3. VQUtils keeps the base-64 shortcuts host code uses most.
  show("VQUtils::base64Encode", nimb::VQUtils::base64Encode(text), expect("Zm9vYmFy"));

  // 4. MD5: VQUtils in upper case (the image cache keys), NimbKit in lower.
  show("VQUtils::md5Value", nimb::VQUtils::md5Value(text),
       expect("3858F62230AC3C915F300C664312C63F"));
  show("NimbKit::md5", nimb::NimbKitString::md5(text), expect("3858f62230ac3c915f300c664312c63f"));

  // 5. AES-256-CBC of the text, as web-safe base 64. The secret must have 16
  // to 32 bytes; a shorter one is refused (nullopt) rather than padded.
  const std::string secret = "0123456789abcdef0123456789abcdef";
  const auto token = nimb::VQUtils::AES256Encrypt(text, secret);
  show("AES256Encrypt", token.value_or("<refused>"));
  show("  short secret", nimb::VQUtils::AES256Encrypt(text, "short").value_or("<refused>"),
       "<refused>");
  // The server side: the token decrypts back to the text.
  show("  decrypted", token ? decrypt(*token, secret) : "<none>", text.c_str());

  std::printf("%s\n", failures == 0 ? "all values as expected" : "MISMATCH");
  return failures == 0 ? 0 : 1;
}
