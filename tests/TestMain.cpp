// Test entry point: the whole process runs under a private, temporary HOME and
// XDG tree, so nothing a test does touches the real user's directories; the
// tree goes when the tests end.
#include <gtest/gtest.h>

#include "TestSupport.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const nimb::test::ScopedHome home;
  return RUN_ALL_TESTS();
}
