// `nimbkit layout`, run as a separate process on the shipped samples and on
// broken descriptions.
#include <NimbFoundation/Platform/Graphics/Image.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "HttpTestServer.h"
#include "TestSupport.h"

namespace nimb {
namespace {

using namespace test;

// The printed frames by the picture they go with ("[layout.png]" opens a
// section).
std::map<std::string, std::string> sections(const std::string& out) {
  std::map<std::string, std::string> found;
  std::istringstream lines(out);
  std::string line, current;
  while (std::getline(lines, line)) {
    if (line.size() > 2 && line.front() == '[' && line.back() == ']') {
      current = line.substr(1, line.size() - 2);
    } else {
      found[current] += line + "\n";
    }
  }
  return found;
}

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(NimbkitLayout, SamplesLayOutHideDetachAndDrawWhatTheyDescribe) {
  ScopedHome home;
  const std::string out = makeTemporaryDirectory("layout-out");
  auto card = runNimbkit({"layout", NIMB_EXAMPLES_DIR "/layout/profile-card.json", "--out", out,
                          "--hide", "bio", "--detach", "avatar"});
  ASSERT_EQ(card.exitCode, 0) << card.err;
  auto printed = sections(card.out);
  const std::string& laidOut = printed["layout.png"];
  EXPECT_TRUE(laidOut.starts_with("card  (0 0; 320 212)\n")) << card.out;
  EXPECT_TRUE(contains(laidOut, "\n  avatar  (16 16; 64 64)\n")) << laidOut;
  EXPECT_TRUE(contains(laidOut, "\n  bio  (16 96; 288 48)\n")) << laidOut;
  EXPECT_TRUE(contains(laidOut, "\n    message  (150 0; 138 36)\n")) << laidOut;
  EXPECT_TRUE(printed["layout-hidden.png"].starts_with("card  (0 0; 320 164)\n"));
  EXPECT_TRUE(contains(printed["layout-hidden.png"], "\n  bio  (16 96; 288 0)  hidden\n"));
  EXPECT_FALSE(contains(printed["layout-detached.png"], "avatar"));
  // Put back in front of its siblings, the view and every frame are as before.
  EXPECT_EQ(sortedLines(printed["layout-restored.png"]), sortedLines(laidOut));
  EXPECT_TRUE(printed["layout-restored.png"].ends_with("\n  avatar  (16 16; 64 64)\n"));

  std::map<std::string, std::shared_ptr<const Image>> drawn;
  for (const char* name :
       {"layout.png", "layout-hidden.png", "layout-detached.png", "layout-restored.png"}) {
    drawn[name] = Image::withContentsOfFile(out + "/" + name);
    ASSERT_TRUE(drawn[name]) << name;
    EXPECT_EQ(drawn[name]->size().width, 320) << name;
  }
  // The bio's colour where it lies, the card's once it is hidden.
  EXPECT_EQ(pixel(drawn["layout.png"]->bitmap(), 20, 100), (Pixel{0xCB, 0xD5, 0xE0, 255}));
  EXPECT_EQ(pixel(drawn["layout-hidden.png"]->bitmap(), 20, 100), (Pixel{0xF4, 0xF5, 0xF7, 255}));

  auto cell = runNimbkit(
      {"layout", NIMB_EXAMPLES_DIR "/layout/feed-cell.json", "--out", out, "--hide", "badge"});
  ASSERT_EQ(cell.exitCode, 0) << cell.err;
  auto cellPrinted = sections(cell.out);
  EXPECT_TRUE(cellPrinted["layout.png"].starts_with("cell  (0 0; 320 88)\n")) << cell.out;
  EXPECT_TRUE(contains(cellPrinted["layout.png"], "\n  badge  (80 56; 56 20)\n")) << cell.out;
  EXPECT_TRUE(cellPrinted["layout-hidden.png"].starts_with("cell  (0 0; 320 80)\n")) << cell.out;
}

TEST(NimbkitLayout, BadDescriptionsFailNamingTheFileAndTheEntry) {
  ScopedHome home;
  const std::string dir = makeTemporaryDirectory("layout-bad"), file = dir + "/bad.json";
  const std::string root =
      R"({"root": {"id": "a", "frame": [0, 0, 10, 10], "subviews": [{"id": "b"}]},)";
  const struct {
    std::string json, message;
  } cases[] = {
      {root + R"("constraints": [{"item": "b", "attribute": "width", "toItem": "zz"}]})",
       "constraints[0]: \"toItem\" names no view: \"zz\""},
      {root + R"("constraints": [{"item": "b", "attribute": "widht", "constant": 1}]})",
       "\"attribute\" is no attribute: \"widht\""},
      {root + R"("constraints": [{"item": "b", "attribute": "left", "constant": 1}]})",
       "not a constraint the layout can hold"},
      {R"({"root": {"id": "a", "subviews": [{"id": "a"}]}})", "the id \"a\" is used twice"},
      {R"({"root": {"frame": [0, 0, 1e400, 10]}})", "not JSON"},
      {R"({"root": {"frame": [0, 0, 1e300, 10]}})", "\"frame\" must be from"},
      {std::string(100000, '[') + std::string(100000, ']'), "nested deeper than 64 levels"},
      {"{\"root\": ", "not JSON"},
  };
  for (const auto& c : cases) {
    std::ofstream(file, std::ios::trunc) << c.json;
    auto result = runNimbkit({"layout", file, "--out", dir});
    EXPECT_EQ(result.exitCode, 1) << c.message;
    EXPECT_TRUE(contains(result.err, "bad.json: ")) << result.err;
    EXPECT_TRUE(contains(result.err, c.message)) << result.err;
  }
  EXPECT_FALSE(std::filesystem::exists(dir + "/layout.png"));

  std::ofstream(file, std::ios::trunc) << root + R"("constraints": []})";
  EXPECT_EQ(runNimbkit({"layout", file, "--out", dir, "--hide", "nosuch"}).exitCode, 2);
  EXPECT_EQ(runNimbkit({"layout", file, "--out", dir, "--detach", "a"}).exitCode, 2);
  EXPECT_EQ(runNimbkit({"layout", dir + "/missing.json"}).exitCode, 1);
}

}  // namespace
}  // namespace nimb
