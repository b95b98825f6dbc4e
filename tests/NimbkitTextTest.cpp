// `nimbkit text ...` and `nimbkit color`, run as a separate process: each
// prints what the kit's String and Color extensions answer.
#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"

namespace nimb {
namespace {

using namespace test;

TEST(NimbkitText, EachSubcommandPrintsOneAnswer) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"text", "length", "e\u0301🇫🇷"}, "2\n"},
      {{"text", "email", "a@b.museum"}, "false\n"},
      {{"text", "special", "a-b"}, "true\n"},
      {{"text", "alnum", "Ab9"}, "true\n"},
      {{"text", "md5", "abc"}, "900150983cd24fb0d6963f7d28e17f72\n"},
      {{"text", "params", "x?z=1&a=\t&c&b=%20"}, "a=\\t\nb=%20\nz=1\n"},  // sorted, escaped
      {{"color", "#ff8000"}, "red 1 green 0.501961 blue 0 alpha 1\n"}};

  for (const auto& [args, out] : rows) {
    auto run = runNimbkit(args);
    EXPECT_EQ(run.exitCode, 0) << args[1] << run.err;
    EXPECT_EQ(run.out, out) << args[1];
  }
  auto unknown = runNimbkit({"text", "frob", "x"});
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_NE(unknown.err.find("frob"), std::string::npos);
}

}  // namespace
}  // namespace nimb
