// Replays a fuzz target's corpus once, without libFuzzer: every regular file
// in the directory given as the first argument is fed to
// LLVMFuzzerTestOneInput, in name order. A target that crashes or aborts
// fails the run; a missing or empty corpus fails it too, so a corpus that
// went astray cannot pass unnoticed.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> corpusFiles(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file(error)) files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
    return 2;
  }
  const std::filesystem::path directory = argv[1];
  std::error_code error;
  if (!std::filesystem::is_directory(directory, error)) {
    std::fprintf(stderr, "corpus directory missing: %s\n", directory.c_str());
    return 1;
  }
  const auto files = corpusFiles(directory);
  if (files.empty()) {
    std::fprintf(stderr, "corpus directory empty: %s\n", directory.c_str());
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 1;
    }
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    // The name goes out first so a crash shows which input caused it.
    std::fprintf(stderr, "%s\n", file.filename().c_str());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf("replayed %zu inputs from %s in %.2f s\n", files.size(), directory.c_str(),
              took.count());
  return 0;
}
