#include <NimbFoundation/Utils/VQUtils.h>

#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"

using nimb::test::runNimbkit;

// The library's tokens are checked against the openssl command (VQUtilsAES);
// the tool hands them out unchanged.
TEST(NimbkitUtils, AesGivesTheLibraryTokenForSecretsOfSixteenToThirtyTwoCharacters) {
  const std::string text = "user=42&token=é";
  for (const std::string secret : {"0123456789abcdef", "exactly thirty-two characters ok"}) {
    auto ours = runNimbkit({"aes", "--secret", secret, text});
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    EXPECT_EQ(ours.out, nimb::VQUtils::AES256Encrypt(text, secret).value_or("(none)") + "\n");
  }
  auto refused = runNimbkit({"aes", "--secret", "too short", "text"});
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_NE(refused.err.find("secret"), std::string::npos);
}

TEST(NimbkitUtils, EscapesDigestsAndQueryStrings) {
  EXPECT_EQ(runNimbkit({"md5", ""}).out, "D41D8CD98F00B204E9800998ECF8427E\n");
  EXPECT_EQ(runNimbkit({"url-encode", "a b/é"}).out, "a%20b%2F%C3%A9\n");
  EXPECT_EQ(runNimbkit({"url-decode", "a%20b+%C3%A9"}).out, "a b+é\n");
  auto bad = runNimbkit({"url-decode", "%C3%28"});
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_EQ(bad.out, "");
  EXPECT_NE(bad.err.find("UTF-8"), std::string::npos);

  auto parsed = runNimbkit({"query-parse", "z=1&a=%20x&c&d=1=2&z=3"});
  EXPECT_EQ(parsed.exitCode, 0);
  EXPECT_EQ(parsed.out, "a= x\nz=3\n");
  EXPECT_EQ(runNimbkit({"query-parse", "a=%FF"}).exitCode, 1);

  EXPECT_EQ(runNimbkit({"query-build", "k=a b&c", "b=2=3"}).out, "b=2%3D3&k=a%20b%26c\n");
  EXPECT_EQ(runNimbkit({"query-build", "novalue"}).exitCode, 2);
}
