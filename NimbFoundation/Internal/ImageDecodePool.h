// ImageDecodePool: the background threads that decode the pictures
// Image::withData makes, and PixelBufferPool, the free list of pixel
// buffers they decode into.
//
// Both exist once per process and are never destroyed: a decode still
// running while the process exits finds its pool and free list intact
// rather than half torn down by static destruction.
//
// Callers: Image only. Thread rule: every member may be called from any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace nimb::detail {

class ImageDecodePool {
 public:
  using Job = std::function<void()>;

  // Queues `job` for a worker; returns at once. False when it could not
  // even be queued (out of memory). Jobs run in the order queued; with no
  // worker thread to be had they wait, so a job must be one that whoever
  // needs its result can also do itself.
  static bool addJob(Job job) noexcept;
  // How many workers decode at once: the cores, at least 2 and at most 4,
  // so decoding never takes over a machine that has other work.
  static std::size_t workerLimit();
};

class PixelBufferPool {
 public:
  // The free list keeps at most this many buffers, and this many bytes.
  static constexpr std::size_t kMaxBuffers = 16;
  static constexpr std::size_t kMaxBytes = 64u << 20;
  // Smaller buffers come cheaply from malloc's own free lists; only large
  // ones are mapped fresh, page by page, on every allocation.
  static constexpr std::size_t kMinBytes = 64u << 10;

  // A buffer of `bytes` bytes: a recycled one when one fits (its contents
  // are whatever it last held), else a new one. Throws std::bad_alloc.
  static std::vector<std::uint8_t> take(std::size_t bytes);
  // Hands a buffer back for reuse; kept only when large enough, dropping
  // the oldest kept ones to stay within bounds.
  static void give(std::vector<std::uint8_t>&& buffer) noexcept;
  // Buffers waiting in the free list.
  static std::size_t count();
};

}  // namespace nimb::detail
