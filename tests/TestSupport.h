// Helpers shared by the test groups.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace nimb::test {

// A fresh directory under $TMPDIR (or /tmp), mode 0700.
inline std::string makeTemporaryDirectory(const std::string& prefix) {
  std::string base = std::filesystem::temp_directory_path().string();
  std::string pattern = base + "/" + prefix + "-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

}  // namespace nimb::test
