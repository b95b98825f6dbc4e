// `nimbkit encode`, run as a separate process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"

using nimb::test::runNimbkit;

TEST(NimbkitEncode, NamedEncodingsBothWays) {
  struct Row {
    const char* name;
    std::string bytes, text;
  };
  const Row rows[] = {
      {"binary", "\xa5", "10100101"},
      {"hex", std::string("\x0f\xa0\x00", 3), "0FA000"},
      {"base32", "foobar", "MZXW6YTBOI======"},
      {"base32hex", "foobar", "CPNMUOJ1E8======"},
      {"crockford", "\xff", "ZW"},
      {"base64", "\xfb\xff", "+/8="},
      {"base64url", "\xfb\xff", "-_8="},
  };
  for (const auto& row : rows) {
    auto enc = runNimbkit({"encode", "--encoding", row.name}, row.bytes);
    EXPECT_EQ(enc.exitCode, 0) << row.name << enc.err;
    EXPECT_EQ(enc.out, row.text + "\n") << row.name;
    auto dec = runNimbkit({"encode", "--encoding", row.name, "--decode"}, enc.out);
    EXPECT_EQ(dec.exitCode, 0) << row.name << dec.err;
    EXPECT_EQ(dec.out, row.bytes) << row.name;
  }
}

TEST(NimbkitEncode, BadTextExitsOneAndWritesNothing) {
  auto r = runNimbkit({"encode", "--encoding", "base64", "--decode"}, "Zh==");
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
}

TEST(NimbkitEncode, CustomAlphabet) {
  auto octal = runNimbkit({"encode", "--alphabet", "01234567", "--pad-char", "=", "--pad"}, "A");
  EXPECT_EQ(octal.exitCode, 0) << octal.err;
  EXPECT_EQ(octal.out, "202=====\n");
  auto back = runNimbkit({"encode", "--alphabet", "01234567", "--decode"}, "202");
  EXPECT_EQ(back.out, "A");
}

TEST(NimbkitEncode, UsageErrorsExitTwoWithOneLine) {
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"encode"},
           {"encode", "--encoding", "base58"},
           {"encode", "--alphabet", "abc"},
           {"encode", "--alphabet", "abca"},
           {"encode", "--alphabet", "ab\xc3\xa9"},
           {"encode", "--alphabet", "ab", "--pad-char", "=="},
           {"encode", "--alphabet", "ab", "--encoding", "hex"},
           {"encode", "--encoding", "hex", "--pad"},
       }) {
    auto r = runNimbkit(args, "x");
    EXPECT_EQ(r.exitCode, 2) << args.back();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
  }
}
