// Test entry point: every test process gets a private, temporary HOME and
// XDG tree, so nothing a test does touches the real user's directories, and
// the tree is removed when the process ends.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "TestSupport.h"

namespace {

class TemporaryHome : public ::testing::Environment {
 public:
  void SetUp() override {
    root_ = nimb::test::makeTemporaryDirectory("nimb-home");
    setenv("HOME", root_.c_str(), 1);
    setenv("XDG_CACHE_HOME", (root_ + "/cache").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (root_ + "/config").c_str(), 1);
    setenv("XDG_DATA_HOME", (root_ + "/data").c_str(), 1);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }

 private:
  std::string root_;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new TemporaryHome);
  return RUN_ALL_TESTS();
}
