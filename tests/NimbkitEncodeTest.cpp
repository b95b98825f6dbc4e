// `nimbkit encode`, run as a separate process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"

using nimb::test::runNimbkit;
using Args = std::vector<std::string>;

TEST(NimbkitEncode, NamedEncodingsAndCustomAlphabetsBothWays) {
  struct Row {
    Args how;
    std::string bytes, text;
  };
  const Row rows[] = {{{"--encoding", "binary"}, "\xa5", "10100101"},
                      {{"--encoding", "hex"}, std::string("\x0f\xa0\x00", 3), "0FA000"},
                      {{"--encoding", "base32"}, "foobar", "MZXW6YTBOI======"},
                      {{"--encoding", "base32hex"}, "foobar", "CPNMUOJ1E8======"},
                      {{"--encoding", "crockford"}, "\xff", "ZW"},
                      {{"--encoding", "base64"}, "\xfb\xff", "+/8="},
                      {{"--encoding", "base64url"}, "\xfb\xff", "-_8="},
                      {{"--alphabet", "01234567", "--pad-char", "=", "--pad"}, "A", "202====="},
                      {{"--alphabet", "01234567"}, "A", "202"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.how[1]);
    Args args{"encode"};
    args.insert(args.end(), row.how.begin(), row.how.end());
    auto enc = runNimbkit(args, row.bytes);
    EXPECT_EQ(enc.exitCode, 0) << enc.err;
    EXPECT_EQ(enc.out, row.text + "\n");
    args.push_back("--decode");
    auto dec = runNimbkit(args, enc.out);
    EXPECT_EQ(dec.exitCode, 0) << dec.err;
    EXPECT_EQ(dec.out, row.bytes);
  }
}

// Text that does not decode exits 1, a usage error 2; either way nothing on
// standard output and one line on standard error.
TEST(NimbkitEncode, BadTextAndUsageErrorsExitWithOneLine) {
  const std::pair<Args, int> rows[] = {{{"encode", "--encoding", "base64", "--decode"}, 1},
                                       {{"encode"}, 2},
                                       {{"encode", "--encoding", "base58"}, 2},
                                       {{"encode", "--alphabet", "abc"}, 2},
                                       {{"encode", "--alphabet", "ab", "--pad-char", "=="}, 2},
                                       {{"encode", "--alphabet", "ab", "--encoding", "hex"}, 2},
                                       {{"encode", "--encoding", "hex", "--pad"}, 2}};
  for (const auto& [args, exitCode] : rows) {
    auto r = runNimbkit(args, "Zh==");
    EXPECT_EQ(r.exitCode, exitCode) << args.back();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
  }
}
