#include <NimbFoundation/Encode/VQStringEncoding.h>

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

using nimb::Data;
using nimb::VQStringEncoding;

namespace {

using Factory = std::shared_ptr<VQStringEncoding> (*)();
Data bytes(std::string_view s) {
  return Data(s.begin(), s.end());
}

std::optional<Data> some(std::string_view s) {
  return bytes(s);
}

const std::string kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

TEST(VQStringEncoding, CreationAcceptsOnlyDistinctAsciiPowersOfTwo) {
  std::string all128;
  for (int c = 0; c < 128; ++c) all128 += static_cast<char>(c);
  for (std::size_t size : {2, 4, 8, 16, 32, 64, 128}) {
    auto e = VQStringEncoding::stringEncodingWithString(all128.substr(128 - size));
    ASSERT_NE(e, nullptr) << size;
    EXPECT_EQ(e->description().rfind("<Base" + std::to_string(size) + " ", 0), 0u);
    EXPECT_FALSE(e->doPad());
  }
  const std::string refused[] = {
      "",
      "0",
      "012",
      "01234",
      all128 + "\x7f",
      std::string(256, 'a'),
      "0120",
      "aa",
      "ab\xc3\xa9" /* 4 bytes, not ASCII */,
      std::string("\x80\x81", 2),
  };
  for (const auto& alphabet : refused) {
    EXPECT_EQ(VQStringEncoding::stringEncodingWithString(alphabet), nullptr) << alphabet.size();
  }
}

TEST(VQStringEncoding, Rfc4648Vectors) {
  const char* inputs[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
  struct Row {
    Factory make;
    const char* out[7];
  };
  const Row rows[] = {
      {&VQStringEncoding::rfc4648Base64StringEncoding,
       {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"}},
      {&VQStringEncoding::rfc4648Base32StringEncoding,
       {"", "MY======", "MZXQ====", "MZXW6===", "MZXW6YQ=", "MZXW6YTB", "MZXW6YTBOI======"}},
      {&VQStringEncoding::rfc4648Base32HexStringEncoding,
       {"", "CO======", "CPNG====", "CPNMU===", "CPNMUOG=", "CPNMUOJ1", "CPNMUOJ1E8======"}},
      {&VQStringEncoding::hexStringEncoding,
       {"", "66", "666F", "666F6F", "666F6F62", "666F6F6261", "666F6F626172"}},
  };
  for (const auto& row : rows) {
    auto e = row.make();
    for (int i = 0; i < 7; ++i) {
      EXPECT_EQ(e->encode(bytes(inputs[i])), row.out[i]) << e->description() << " " << inputs[i];
      EXPECT_EQ(e->decode(row.out[i]), some(inputs[i])) << row.out[i];
    }
  }
}

TEST(VQStringEncoding, EncodeExamples) {
  struct Row {
    Factory make;
    Data in;
    std::string out;
  };
  const Row rows[] = {
      {&VQStringEncoding::rfc4648Base64StringEncoding, {0xFB, 0xFF}, "+/8="},
      {&VQStringEncoding::rfc4648Base64WebsafeStringEncoding, {0xFB, 0xFF}, "-_8="},
      {&VQStringEncoding::hexStringEncoding, {0x0F, 0xA0}, "0FA0"},
      {&VQStringEncoding::crockfordBase32StringEncoding, {0xFF}, "ZW"},
      {&VQStringEncoding::binaryStringEncoding, {0xA5}, "10100101"},
      {&VQStringEncoding::binaryStringEncoding, {0x01, 0x80}, "0000000110000000"},
      {&VQStringEncoding::crockfordBase32StringEncoding, bytes("foobar"), "CSQPYRK1E8"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.make()->encode(row.in), row.out) << row.out;
  // Every named encoder gives "" for no bytes, padded ones included.
  for (auto name : VQStringEncoding::encodingNames()) {
    EXPECT_EQ(VQStringEncoding::encodingNamed(name)->encode({}), "") << name;
  }
  EXPECT_EQ(VQStringEncoding::encodingNamed("base63"), nullptr);
}

TEST(VQStringEncoding, DecodeIsLenientAboutPaddingAndStrictAboutBits) {
  struct Row {
    Factory make;
    std::string text;
    std::optional<Data> result;
  };
  const auto b64 = &VQStringEncoding::rfc4648Base64StringEncoding;
  const auto hex = &VQStringEncoding::hexStringEncoding;
  const auto crock = &VQStringEncoding::crockfordBase32StringEncoding;
  const Row rows[] = {
      {b64, "Zg", some("f")},
      {b64, "Zg=", some("f")},
      {b64, "Zg==", some("f")},
      {b64, "Zg=====", some("f")},
      {b64, "Zm9vYg", some("foob")},
      {b64, "Zg=a", std::nullopt},  // data after padding
      {b64, "=Zg", std::nullopt},
      {b64, "Zh==", std::nullopt},  // non-zero leftover bits
      {b64, "A", Data{}},
      {b64, "B", std::nullopt},
      {b64, "==", Data{}},
      {b64, "", Data{}},
      {b64, "Zm9v\nYg==", std::nullopt},
      {b64, "Zm9v Yg==", std::nullopt},
      {b64, "Zg\xc3\xa9", std::nullopt},
      {b64, std::string("Zg==\0\xc3", 6), std::nullopt},  // non-ASCII even after NUL
      {b64, std::string("Zg\0!!", 5), some("f")},         // nothing after NUL is read
      {hex, "0fa0", Data{0x0F, 0xA0}},
      {hex, "0Fa", std::nullopt},
      {hex, "0F1", std::nullopt},
      {hex, "0F0", Data{0x0F}},
      {hex, "0G", std::nullopt},
      {crock, "zw", Data{0xFF}},
      {crock, "U0", std::nullopt},
      {crock, "oOiIlL00", Data{0x00, 0x02, 0x10, 0x84, 0x00}},
      {crock, "csqpyrk1e8", some("foobar")},
      {&VQStringEncoding::rfc4648Base32StringEncoding, "mzxw6ytb", std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(row.make()->decode(row.text), row.result) << row.text;
}

TEST(VQStringEncoding, RandomBytesRoundTrip) {
  std::vector<std::shared_ptr<VQStringEncoding>> encoders;
  for (auto name : VQStringEncoding::encodingNames()) {
    encoders.push_back(VQStringEncoding::encodingNamed(name));
  }
  // Custom alphabets of every size, without NUL so the output reads back whole.
  std::string printable;
  for (int c = 1; c < 128; ++c) printable += static_cast<char>(c);
  for (std::size_t size : {2, 4, 8, 16, 32, 64}) {
    auto e = VQStringEncoding::stringEncodingWithString(printable.substr(64 - size / 2, size));
    ASSERT_NE(e, nullptr);
    encoders.push_back(e);
    auto padded = VQStringEncoding::stringEncodingWithString(printable.substr(0, size));
    padded->setPaddingChar('\x7f');
    padded->setDoPad(true);
    encoders.push_back(padded);
  }
  std::mt19937 rng(20240611);
  for (const auto& e : encoders) {
    for (std::size_t length = 0; length < 40; ++length) {
      Data in(length);
      for (auto& b : in) b = static_cast<std::uint8_t>(rng());
      std::string text = e->encode(in);
      EXPECT_EQ(e->decode(text), in) << e->description() << " length " << length;
    }
  }
}

TEST(VQStringEncoding, QuirksOfAFreshEncoder) {
  // Padding turned on without a padding character pads with NUL, and since
  // decoding stops at the first NUL that output still reads back.
  auto e = VQStringEncoding::stringEncodingWithString(kBase64);
  e->setDoPad(true);
  EXPECT_EQ(e->encode(bytes("f")), std::string("Zg\0\0", 4));
  EXPECT_EQ(e->decode(std::string("Zg\0\0", 4)), some("f"));
  // An alphabet holding NUL cannot read back output that contains it.
  std::string withNul = std::string(1, '\0') + "123";
  auto z = VQStringEncoding::stringEncodingWithString(withNul);
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(z->encode({0x1B}), std::string("\0"
                                           "123",
                                           4));
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
    EXPECT_EQ(e->decode("Zg"), some("f"));
  }
  {  // Unknowns after the padding character become padding.
    auto e = fresh();
    e->setPaddingChar('=');
    e->addDecodeSynonyms("=.");
    EXPECT_EQ(e->decode("Zg.."), some("f"));
    EXPECT_EQ(e->decode("Zg.a"), std::nullopt);
  }
  {  // Ignoring overrides the alphabet on decode only; encode still writes it.
    auto e = fresh();
    e->ignoreCharacters("A \n");
    EXPECT_EQ(e->decode("Z A g\nA"), some("f"));
    EXPECT_EQ(e->encode(Data(3, 0)), "AAAA");
    e->addDecodeSynonyms(" \t");  // a run opened by an ignored character
    EXPECT_EQ(e->decode("Z\tg"), some("f"));
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
    EXPECT_EQ(e->decode("Zg=="), some("f"));
    EXPECT_EQ(e->decode("Zg=."), some("f"));
  }
  {  // The padding character may replace an alphabet character.
    auto e = fresh();
    e->setPaddingChar('A');
    EXPECT_EQ(e->decode("ZgA"), some("f"));
    EXPECT_EQ(e->decode("AZg"), std::nullopt);
  }
}

TEST(VQStringEncoding, NonAsciiSetUpIsRefusedAndChangesNothing) {
  auto e = VQStringEncoding::stringEncodingWithString("0123456789ABCDEF");
  EXPECT_FALSE(e->addDecodeSynonyms("Aa\xc3\xa9"));
  EXPECT_EQ(e->decode("aa"), std::nullopt);
  EXPECT_FALSE(e->ignoreCharacters(" \xff"));
  EXPECT_EQ(e->decode("0 0"), std::nullopt);
  EXPECT_TRUE(e->setPaddingChar('='));
  EXPECT_FALSE(e->setPaddingChar('\xe9'));
  e->setDoPad(true);
  EXPECT_EQ(e->encode({0xAB}), "AB");  // 16 symbols need no padding
  auto b = VQStringEncoding::stringEncodingWithString(kBase64);
  b->setPaddingChar('=');
  EXPECT_FALSE(b->setPaddingChar(static_cast<char>(0x80)));
  b->setDoPad(true);
  EXPECT_EQ(b->encode(bytes("f")), "Zg==");
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
  EXPECT_EQ(VQStringEncoding::binaryStringEncoding()->description(),
            "<Base2 StringEncoder: <3031>>");
}

// The block kernels must agree with the bit loop on every verdict and every
// byte. Valid text is mutated with the characters that end a kernel's run
// (padding, ignored characters, synonyms, invalid and non-ASCII bytes, NUL)
// and the decodings through each path are compared.
TEST(VQStringEncoding, FastPathsDecodeExactlyLikeTheBitLoop) {
  using Path = VQStringEncoding::Path;
  std::vector<std::shared_ptr<VQStringEncoding>> encoders;
  for (auto name : VQStringEncoding::encodingNames()) {
    encoders.push_back(VQStringEncoding::encodingNamed(name));
  }
  auto lenient = VQStringEncoding::rfc4648Base64StringEncoding();
  lenient->ignoreCharacters(" \n");
  lenient->addDecodeSynonyms("+-/_");
  encoders.push_back(lenient);
  // Custom alphabets, one holding NUL, whose output then stops decoding.
  std::string codes;
  for (int c = 0; c < 128; ++c) codes += static_cast<char>(c);
  for (std::size_t size : {8, 32, 128}) {
    auto custom = VQStringEncoding::stringEncodingWithString(codes.substr(128 - size));
    ASSERT_NE(custom, nullptr);
    custom->setPaddingChar('\x01');
    custom->setDoPad(true);
    encoders.push_back(custom);
  }
  const std::string strange = std::string("= \n\0-_aA+/\x80\xff~", 14);
  std::mt19937 rng(4648);
  for (const auto& e : encoders) {
    for (int round = 0; round < 300; ++round) {
      Data in(rng() % 200);
      for (auto& b : in) b = static_cast<std::uint8_t>(rng());
      std::string text = e->encode(in);
      if (round > 0) {
        for (int m = rng() % 3; m >= 0 && !text.empty(); --m) {
          const std::size_t at = rng() % text.size();
          switch (rng() % 4) {
            case 0:
              text[at] = strange[rng() % strange.size()];
              break;
            case 1:
              text.insert(at, 1, strange[rng() % strange.size()]);
              break;
            case 2:
              text.erase(at, 1);
              break;
            default:
              text[at] = static_cast<char>(rng());
          }
        }
      }
      const auto exact = e->decode(text, Path::kExact);
      if (round == 0) {
        EXPECT_EQ(exact, in);
      }
      for (auto path : {Path::kScalar, Path::kVector, Path::kAutomatic}) {
        ASSERT_EQ(e->decode(text, path), exact) << e->description() << " text " << text;
      }
    }
  }
}
