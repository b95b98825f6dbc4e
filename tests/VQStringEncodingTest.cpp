#include <NimbFoundation/Encode/VQStringEncoding.h>

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

using nimb::Data;
using nimb::VQStringEncoding;

namespace {

using Factory = std::shared_ptr<VQStringEncoding> (*)();
Data bytes(std::string_view s) {
  return Data(s.begin(), s.end());
}

const std::string kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::vector<std::shared_ptr<VQStringEncoding>> namedEncoders() {
  std::vector<std::shared_ptr<VQStringEncoding>> encoders;
  for (auto name : VQStringEncoding::encodingNames()) {
    encoders.push_back(VQStringEncoding::encodingNamed(name));
  }
  return encoders;
}

}  // namespace

TEST(VQStringEncoding, CreationAcceptsOnlyDistinctAsciiPowersOfTwo) {
  std::string all128;
  for (int c = 0; c < 128; ++c) all128 += static_cast<char>(c);
  // Every power of two is accepted (see the round trips); sizes that are
  // no power of two, repeats, and bytes outside ASCII are not.
  std::vector<std::string> refused{"", "0", "012", "01234", "0120", "aa", "ab\xc3\xa9", "\x80\x81"};
  refused.push_back(all128 + "\x7f");
  refused.push_back(std::string(256, 'a'));
  for (const auto& alphabet : refused) {
    EXPECT_EQ(VQStringEncoding::stringEncodingWithString(alphabet), nullptr) << alphabet.size();
  }
}

TEST(VQStringEncoding, KnownVectorsBothWays) {
  const char* inputs[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
  struct Row {
    Factory make;
    const char* out[7];
  };
  const Row rfc4648[] = {
      {&VQStringEncoding::rfc4648Base64StringEncoding,
       {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"}},
      {&VQStringEncoding::rfc4648Base32StringEncoding,
       {"", "MY======", "MZXQ====", "MZXW6===", "MZXW6YQ=", "MZXW6YTB", "MZXW6YTBOI======"}},
      {&VQStringEncoding::rfc4648Base32HexStringEncoding,
       {"", "CO======", "CPNG====", "CPNMU===", "CPNMUOG=", "CPNMUOJ1", "CPNMUOJ1E8======"}}};
  struct Example {
    Factory make;
    Data in;
    std::string out;
  };
  std::vector<Example> examples{
      {&VQStringEncoding::rfc4648Base64StringEncoding, {0xFB, 0xFF}, "+/8="},
      {&VQStringEncoding::rfc4648Base64WebsafeStringEncoding, {0xFB, 0xFF}, "-_8="},
      {&VQStringEncoding::hexStringEncoding, {0x0F, 0xA0}, "0FA0"},
      {&VQStringEncoding::hexStringEncoding, bytes("foobar"), "666F6F626172"},
      {&VQStringEncoding::crockfordBase32StringEncoding, {0xFF}, "ZW"},
      {&VQStringEncoding::binaryStringEncoding, {0xA5}, "10100101"},
      {&VQStringEncoding::binaryStringEncoding, {0x01, 0x80}, "0000000110000000"},
      {&VQStringEncoding::crockfordBase32StringEncoding, bytes("foobar"), "CSQPYRK1E8"}};
  for (const auto& row : rfc4648) {
    for (int i = 0; i < 7; ++i) examples.push_back({row.make, bytes(inputs[i]), row.out[i]});
  }
  for (const auto& [make, in, out] : examples) {
    auto e = make();
    EXPECT_EQ(e->encode(in), out) << e->description();
    EXPECT_EQ(e->decode(out), in) << out;
  }
  // Every named encoder gives "" for no bytes, padded ones included.
  for (const auto& e : namedEncoders()) EXPECT_EQ(e->encode({}), "") << e->description();
  EXPECT_EQ(VQStringEncoding::encodingNamed("base63"), nullptr);
}

TEST(VQStringEncoding, DecodeIsLenientAboutPaddingAndStrictAboutBits) {
  using namespace std::string_literals;
  using Decoded = std::pair<std::string, std::optional<std::string>>;
  const auto no = std::nullopt;
  // Base 64 padding may be missing or repeated but nothing may follow it;
  // leftover bits must be zero; white space is not skipped; non-ASCII refuses
  // the text even after a NUL, and otherwise nothing after a NUL is read.
  const Decoded base64[] = {{"Zg", "f"},         {"Zg=", "f"},       {"Zg==", "f"},
                            {"Zg=====", "f"},    {"Zm9vYg", "foob"}, {"Zg=a", no},
                            {"=Zg", no},         {"Zh==", no},       {"A", ""},
                            {"B", no},           {"==", ""},         {"", ""},
                            {"Zm9v\nYg==", no},  {"Zm9v Yg==", no},  {"Zg\xc3\xa9", no},
                            {"Zg==\0\xc3"s, no}, {"Zg\0!!"s, "f"}};
  const Decoded hex[] = {
      {"0fa0", "\x0f\xa0"}, {"0Fa", no}, {"0F1", no}, {"0F0", "\x0f"}, {"0G", no}};
  // Crockford reads lower case, o as 0, i and l as 1; U stays invalid.
  const Decoded crockford[] = {
      {"zw", "\xff"}, {"U0", no}, {"oOiIlL00", "\0\x02\x10\x84\0"s}, {"csqpyrk1e8", "foobar"}};
  auto check = [](Factory make, std::span<const Decoded> rows) {
    for (const auto& [text, decoded] : rows) {
      EXPECT_EQ(make()->decode(text), decoded ? std::optional(bytes(*decoded)) : std::nullopt)
          << text;
    }
  };
  check(&VQStringEncoding::rfc4648Base64StringEncoding, base64);
  check(&VQStringEncoding::hexStringEncoding, hex);
  check(&VQStringEncoding::crockfordBase32StringEncoding, crockford);
  EXPECT_EQ(VQStringEncoding::rfc4648Base32StringEncoding()->decode("mzxw6ytb"), std::nullopt);
}

TEST(VQStringEncoding, QuirksOfAFreshEncoder) {
  // Padding turned on without a padding character pads with NUL, and since
  // decoding stops at the first NUL that output still reads back.
  auto e = VQStringEncoding::stringEncodingWithString(kBase64);
  e->setDoPad(true);
  EXPECT_EQ(e->encode(bytes("f")), std::string("Zg\0\0", 4));
  EXPECT_EQ(e->decode(std::string("Zg\0\0", 4)), bytes("f"));
  // An alphabet holding NUL cannot read back output that contains it.
  const std::string withNul = std::string(1, '\0') + "123";
  auto z = VQStringEncoding::stringEncodingWithString(withNul);
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(z->encode({0x1B}), withNul);
  EXPECT_EQ(z->decode(z->encode({0x1B})), Data{});
  // Named encoders are fresh each call: configuring one leaves the next alone.
  auto first = VQStringEncoding::hexStringEncoding();
  first->ignoreCharacters(" ");
  EXPECT_EQ(VQStringEncoding::hexStringEncoding()->decode("0F A0"), std::nullopt);
  EXPECT_EQ(first->decode("0F A0"), (Data{0x0F, 0xA0}));
}

TEST(VQStringEncoding, SetUpWritesOneTableInCallOrder) {
  auto fresh = [] { return VQStringEncoding::stringEncodingWithString(kBase64); };
  {  // Unknowns before a mapped character stay unknown; mapped ones never change.
    auto e = fresh();
    ASSERT_TRUE(e->addDecodeSynonyms("!A#$B%"));
    EXPECT_EQ(e->decode("!A"), std::nullopt);
    EXPECT_EQ(e->decode("#$%A"), e->decode("AABA"));
    EXPECT_EQ(e->decode("Zg"), bytes("f"));
  }
  {  // Unknowns after the padding character become padding.
    auto e = fresh();
    e->setPaddingChar('=');
    e->addDecodeSynonyms("=.");
    EXPECT_EQ(e->decode("Zg.."), bytes("f"));
    EXPECT_EQ(e->decode("Zg.a"), std::nullopt);
  }
  {  // Ignoring overrides the alphabet on decode only; encode still writes it.
    auto e = fresh();
    e->ignoreCharacters("A \n");
    EXPECT_EQ(e->decode("Z A g\nA"), bytes("f"));
    EXPECT_EQ(e->encode(Data(3, 0)), "AAAA");
    e->addDecodeSynonyms(" \t");  // a run opened by an ignored character
    EXPECT_EQ(e->decode("Z\tg"), bytes("f"));
  }
  {  // Padding then ignoring the same character: ignored wins, and back again.
    auto padThenIgnore = fresh();
    padThenIgnore->setPaddingChar('=');
    padThenIgnore->ignoreCharacters("=");
    EXPECT_EQ(padThenIgnore->decode("Zg=A"), (Data{0x66, 0x00}));
    auto ignoreThenPad = fresh();
    ignoreThenPad->ignoreCharacters("=");
    ignoreThenPad->setPaddingChar('=');
    EXPECT_EQ(ignoreThenPad->decode("Zg=A"), std::nullopt);
  }
  {  // A new padding character is written; the old one still reads as padding.
    auto e = fresh();
    e->setPaddingChar('=');
    e->setPaddingChar('.');
    e->setDoPad(true);
    EXPECT_EQ(e->encode(bytes("f")), "Zg..");
    EXPECT_EQ(e->decode("Zg=="), bytes("f"));
    EXPECT_EQ(e->decode("Zg=."), bytes("f"));
  }
  {  // The padding character may replace an alphabet character.
    auto e = fresh();
    e->setPaddingChar('A');
    EXPECT_EQ(e->decode("ZgA"), bytes("f"));
    EXPECT_EQ(e->decode("AZg"), std::nullopt);
  }
  {  // Non-ASCII set-up is refused and changes nothing.
    auto e = fresh();
    EXPECT_FALSE(e->addDecodeSynonyms("-A\xc3\xa9"));
    EXPECT_EQ(e->decode("--"), std::nullopt);
    EXPECT_FALSE(e->ignoreCharacters(" \xff"));
    EXPECT_EQ(e->decode("A A"), std::nullopt);
    EXPECT_TRUE(e->setPaddingChar('='));
    EXPECT_FALSE(e->setPaddingChar(static_cast<char>(0x80)));
    e->setDoPad(true);
    EXPECT_EQ(e->encode(bytes("f")), "Zg==");
  }
}

TEST(VQStringEncoding, StringsAndDescription) {
  auto e = VQStringEncoding::rfc4648Base64StringEncoding();
  EXPECT_EQ(e->encodeString("h\xc3\xa9llo"), "aMOpbGxv");
  EXPECT_EQ(e->stringByDecoding("aMOpbGxv"), "h\xc3\xa9llo");
  EXPECT_EQ(e->stringByDecoding("//4="), std::nullopt);  // FF FE is not UTF-8
  EXPECT_EQ(e->stringByDecoding("Zh=="), std::nullopt);
  EXPECT_EQ(e->stringByDecoding(""), "");
  EXPECT_EQ(VQStringEncoding::hexStringEncoding()->description(),
            "<Base16 StringEncoder: <30313233 34353637 38394142 43444546>>");
  // Symbols of 4 bits fill whole bytes, so even padding on writes none.
  auto hex = VQStringEncoding::stringEncodingWithString("0123456789ABCDEF");
  hex->setPaddingChar('=');
  hex->setDoPad(true);
  EXPECT_EQ(hex->encode({0xAB}), "AB");
}

// Every encoder reads back what it wrote, and the block kernels agree with
// the bit loop on every verdict and every byte, encoding and decoding, for
// every alphabet size and lengths around the kernels' block and vector
// widths. Valid text is mutated with the characters that end a kernel's run
// (padding, ignored characters, synonyms, invalid and non-ASCII bytes, NUL)
// and the decodings through each path are compared.
TEST(VQStringEncoding, RoundTripsAndFastPathsWorkExactlyLikeTheBitLoop) {
  using Path = VQStringEncoding::Path;
  auto encoders = namedEncoders();
  auto lenient = VQStringEncoding::rfc4648Base64StringEncoding();
  lenient->ignoreCharacters(" \n");
  lenient->addDecodeSynonyms("+-/_");
  encoders.push_back(lenient);
  // Custom alphabets of every size, bare and padded. The one of 128 holds
  // NUL, which stops decoding, and gives "\x01" to padding, so it cannot
  // read back all it writes.
  std::shared_ptr<VQStringEncoding> lossy;
  std::string codes;
  for (int c = 0; c < 128; ++c) codes += static_cast<char>(c);
  for (std::size_t size = 2; size <= 128; size *= 2) {
    std::vector<std::pair<std::string, char>> made{{codes.substr(128 - size), '\x01'}};
    if (size < 128) {
      made.push_back({codes.substr(65 - size / 2, size), '\0'});
      made.push_back({codes.substr(1, size), '\x7f'});
    }
    for (const auto& [alphabet, pad] : made) {
      auto custom = VQStringEncoding::stringEncodingWithString(alphabet);
      ASSERT_NE(custom, nullptr) << size;
      EXPECT_EQ(custom->description().rfind("<Base" + std::to_string(size) + " ", 0), 0u);
      if (pad) custom->setPaddingChar(pad);
      custom->setDoPad(pad);
      encoders.push_back(custom);
    }
    if (size == 128) lossy = encoders.back();
  }
  const std::string strange = std::string("= \n\0-_aA+/\x80\xff~", 14);
  const std::size_t kLong[] = {95, 96, 97, 1000};
  const auto paths = {Path::kScalar, Path::kVector, Path::kAutomatic};
  std::mt19937 rng(4648);
  for (const auto& e : encoders) {
    // Every length up to 39 and a few long ones as written, then random
    // ones mutated.
    for (std::size_t round = 0; round < 344; ++round) {
      const bool clean = round < 44;
      Data in(round < 40 ? round : clean ? kLong[round - 40] : rng() % 200);
      for (auto& b : in) b = static_cast<std::uint8_t>(rng());
      std::string text = e->encode(in, Path::kExact);
      for (auto path : paths) {
        ASSERT_EQ(e->encode(in, path), text) << e->description() << " length " << in.size();
      }
      for (int m = rng() % 3; !clean && m >= 0 && !text.empty(); --m) {
        // Replace with a strange character, insert one, erase, or replace with any byte.
        const std::size_t at = rng() % text.size(), kind = rng() % 4;
        const char c = kind == 2   ? '\0'
                       : kind == 3 ? static_cast<char>(rng())
                                   : strange[rng() % strange.size()];
        if (kind == 2)
          text.erase(at, 1);
        else if (kind == 1)
          text.insert(at, 1, c);
        else
          text[at] = c;
      }
      const auto exact = e->decode(text, Path::kExact);
      if (clean && e != lossy) {
        EXPECT_EQ(exact, in) << e->description() << " length " << in.size();
      }
      for (auto path : paths) {
        ASSERT_EQ(e->decode(text, path), exact) << e->description() << " text " << text;
      }
    }
  }
}
