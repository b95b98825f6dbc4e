// VQStringEncoding throughput, base 64 and hexadecimal, 1 KiB and 1 MiB of
// data, encode and decode, through each path of the encoder:
//   exact   the bit loop
//   scalar  the table-driven block kernel
//   vector  the widest vector block kernel (AVX-512, else AVX2, else scalar)
// and, for base 64, each vector width's block kernel on its own, timed
// without the encoder around it:
//   avx2    the AVX2 kernel
//   avx512  the AVX-512 VBMI kernel
// against OpenSSL's EVP_EncodeBlock / EVP_DecodeBlock (base 64 only) and
// memcpy of the same number of bytes, the ceiling.
//
// Every contender writes into buffers allocated once, so the figures are the
// loops' own. MB/s counts the data bytes (10^6 per MB) in both directions:
// decoding 1 MiB means decoding the text that encodes 1 MiB. The summary
// uses the medians of the repetitions, which run interleaved at random.
#include <benchmark/benchmark.h>

#include <openssl/evp.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <NimbFoundation/Encode/VQStringEncoding.h>

#include "BenchSupport.h"

// The block kernels are internal (the shared library keeps their symbols
// to itself), so this bench links the static archive to time one width at
// a time.
#include <NimbFoundation/Internal/BaseNKernels.h>

namespace {

using nimb::Data;
using nimb::VQStringEncoding;
using Path = VQStringEncoding::Path;

const std::vector<std::pair<std::string, std::size_t>> kSizes = {{"1KiB", 1024},
                                                                 {"1MiB", 1024 * 1024}};
const std::vector<std::pair<std::string, Path>> kPaths = {
    {"exact", Path::kExact}, {"scalar", Path::kScalar}, {"vector", Path::kVector}};

Data randomBytes(std::size_t size) {
  std::mt19937_64 rng(size);
  Data d(size);
  for (auto& b : d) b = static_cast<std::uint8_t>(rng());
  return d;
}

std::string name(const std::string& codec, const std::string& direction,
                 const std::string& contender, const std::string& size) {
  return codec + "/" + direction + "/" + contender + "/" + size;
}

void registerEncoder(const std::string& codec, std::shared_ptr<VQStringEncoding> encoder) {
  for (const auto& [sizeName, size] : kSizes) {
    const Data data = randomBytes(size);
    const std::string text = encoder->encode(data);
    for (const auto& [pathName, path] : kPaths) {
      benchmark::RegisterBenchmark(
          name(codec, "encode", pathName, sizeName).c_str(),
          [encoder, data, path = path](benchmark::State& state) {
            std::string out(encoder->encodedLength(data.size()), '\0');
            for (auto _ : state) {
              benchmark::DoNotOptimize(
                  encoder->encodeInto(data.data(), data.size(), out.data(), path));
              benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
          });
      benchmark::RegisterBenchmark(
          name(codec, "decode", pathName, sizeName).c_str(),
          [encoder, text, path = path](benchmark::State& state) {
            Data out(encoder->decodedCapacity(text.size()));
            std::size_t written = 0;
            for (auto _ : state) {
              written = encoder->decodeInto(text, out.data(), path).value_or(0);
              benchmark::DoNotOptimize(written);
              benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * written));
          });
    }
  }
}

// Base-64 block kernels of one width each, where the processor has it.
void registerKernelWidths() {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<std::int32_t, 128> reverse;
  reverse.fill(VQStringEncoding::kUnknown);
  for (std::size_t i = 0; i < 64; ++i) {
    reverse[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int32_t>(i);
  }
  const auto kernels = std::make_shared<const nimb::BaseNKernels>(alphabet, reverse);
  using Kind = nimb::BaseNKernels::Kind;
  std::vector<std::pair<std::string, Kind>> widths;
  if (nimb::BaseNKernels::processorHasAvx2()) widths.push_back({"avx2", Kind::kAvx2});
  if (nimb::BaseNKernels::processorHasAvx512Vbmi()) widths.push_back({"avx512", Kind::kAvx512});
  for (const auto& [sizeName, size] : kSizes) {
    const Data data = randomBytes(size);
    const std::string text = VQStringEncoding::rfc4648Base64StringEncoding()->encode(data);
    for (const auto& [widthName, kind] : widths) {
      benchmark::RegisterBenchmark(
          name("base64", "encode", widthName, sizeName).c_str(),
          [kernels, data, kind = kind](benchmark::State& state) {
            std::string out(data.size() / 3 * 4, '\0');
            for (auto _ : state) {
              benchmark::DoNotOptimize(
                  kernels->encodeBlocks(data.data(), data.size(), out.data(), kind));
              benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
          });
      benchmark::RegisterBenchmark(
          name("base64", "decode", widthName, sizeName).c_str(),
          [kernels, text, size = size, kind = kind](benchmark::State& state) {
            Data out(text.size() / 8 * 6);
            for (auto _ : state) {
              benchmark::DoNotOptimize(
                  kernels->decodeBlocks(text.data(), text.size(), out.data(), kind));
              benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
          });
    }
  }
}

void registerBaselines() {
  for (const auto& [sizeName, size] : kSizes) {
    const Data data = randomBytes(size);
    benchmark::RegisterBenchmark(
        name("base64", "encode", "openssl", sizeName).c_str(), [data](benchmark::State& state) {
          std::vector<unsigned char> out(4 * ((data.size() + 2) / 3) + 1);
          for (auto _ : state) {
            benchmark::DoNotOptimize(
                EVP_EncodeBlock(out.data(), data.data(), static_cast<int>(data.size())));
            benchmark::ClobberMemory();
          }
          state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
        });
    const std::string text = VQStringEncoding::rfc4648Base64StringEncoding()->encode(data);
    benchmark::RegisterBenchmark(
        name("base64", "decode", "openssl", sizeName).c_str(),
        [text, size = size](benchmark::State& state) {
          std::vector<unsigned char> out(text.size());
          for (auto _ : state) {
            benchmark::DoNotOptimize(
                EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                static_cast<int>(text.size())));
            benchmark::ClobberMemory();
          }
          state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
        });
    benchmark::RegisterBenchmark(
        name("copy", "-", "memcpy", sizeName).c_str(), [data](benchmark::State& state) {
          Data out(data.size());
          for (auto _ : state) {
            std::memcpy(out.data(), data.data(), data.size());
            benchmark::ClobberMemory();
          }
          state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
        });
  }
}

// One table per size: MB/s of each contender and its ratio to the exact
// loop, to OpenSSL and to memcpy (higher is faster).
void printSummary(const nimb::bench::RatioReporter& reporter) {
  for (const auto& [sizeName, size] : kSizes) {
    const double bytes = static_cast<double>(size);
    auto rate = [&](const std::string& benchmarkName) {
      const double s = reporter.seconds(benchmarkName);
      return s > 0 ? bytes / s / 1e6 : 0.0;
    };
    const double copy = rate(name("copy", "-", "memcpy", sizeName));
    std::printf("\n%s, MB/s of data (median)     MB/s   x exact  x openssl  x memcpy\n",
                sizeName.c_str());
    std::printf("  %-28s %9.0f\n", "memcpy", copy);
    for (const std::string codec : {"base64", "hex"}) {
      for (const std::string direction : {"encode", "decode"}) {
        const double exact = rate(name(codec, direction, "exact", sizeName));
        const double openssl = rate(name(codec, direction, "openssl", sizeName));
        for (const std::string contender :
             {"exact", "scalar", "vector", "avx2", "avx512", "openssl"}) {
          const double r = rate(name(codec, direction, contender, sizeName));
          if (r <= 0) continue;
          std::printf("  %-28s %9.0f %8.2f", (codec + " " + direction + " " + contender).c_str(), r,
                      exact > 0 ? r / exact : 0.0);
          if (openssl > 0) {
            std::printf(" %10.2f", r / openssl);
          } else {
            std::printf(" %10s", "-");
          }
          std::printf(" %9.3f\n", copy > 0 ? r / copy : 0.0);
        }
      }
    }
  }
  std::printf("\nAVX2 on this processor: %s; AVX-512 VBMI: %s\n",
              VQStringEncoding::vectorPathAvailable() ? "yes" : "no",
              nimb::BaseNKernels::processorHasAvx512Vbmi() ? "yes" : "no");
}

}  // namespace

int main(int argc, char** argv) {
  registerEncoder("base64", VQStringEncoding::rfc4648Base64StringEncoding());
  registerEncoder("hex", VQStringEncoding::hexStringEncoding());
  registerKernelWidths();
  registerBaselines();
  return nimb::bench::runWithRatios(argc, argv, {}, printSummary);
}
