#include <NimbFoundation/Internal/ImageDecodePool.h>

#include <NimbFoundation/Internal/GuardedCall.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace nimb::detail {

namespace {

struct DecodeQueue {
  std::mutex mutex;
  std::condition_variable work;
  std::deque<ImageDecodePool::Job> jobs;
  std::size_t workers = 0;
  std::size_t idle = 0;
};

// Made on first use and deliberately never destroyed (see the header).
DecodeQueue& decodeQueue() {
  static auto* queue = new DecodeQueue;
  return *queue;
}

[[noreturn]] void workerLoop(DecodeQueue& queue) {
  std::unique_lock lock(queue.mutex);
  for (;;) {
    ++queue.idle;
    queue.work.wait(lock, [&] { return !queue.jobs.empty(); });
    --queue.idle;
    ImageDecodePool::Job job = std::move(queue.jobs.front());
    queue.jobs.pop_front();
    lock.unlock();
    callReportingExceptions("ImageDecodePool: a job", job);
    job = nullptr;  // whatever the job holds goes before the next wait
    lock.lock();
  }
}

struct FreeList {
  std::mutex mutex;
  std::array<std::vector<std::uint8_t>, PixelBufferPool::kMaxBuffers> buffers;  // oldest first
  std::size_t count = 0;
  std::size_t bytes = 0;  // the capacities kept, summed

  std::vector<std::uint8_t> remove(std::size_t i) {
    std::vector<std::uint8_t> out = std::move(buffers[i]);
    std::move(buffers.begin() + i + 1, buffers.begin() + count, buffers.begin() + i);
    --count;
    bytes -= out.capacity();
    return out;
  }
};

FreeList& freeList() {
  static auto* list = new FreeList;
  return *list;
}

}  // namespace

bool ImageDecodePool::addJob(Job job) noexcept {
  DecodeQueue& queue = decodeQueue();
  {
    std::lock_guard lock(queue.mutex);
    try {
      queue.jobs.push_back(std::move(job));
    } catch (...) {
      return false;
    }
    // Workers start as work arrives and then stay: decoding comes in bursts
    // (a screenful of images), and a thread waiting costs nothing.
    if (queue.idle < queue.jobs.size() && queue.workers < workerLimit()) {
      try {
        std::thread([&queue] { workerLoop(queue); }).detach();
        ++queue.workers;
      } catch (...) {
        // No thread to be had now: the job waits for a worker started later,
        // or is done by the first reader that needs its pixels.
      }
    }
  }
  queue.work.notify_one();
  return true;
}

std::size_t ImageDecodePool::workerLimit() {
  return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, 4);
}

std::vector<std::uint8_t> PixelBufferPool::take(std::size_t bytes) {
  std::vector<std::uint8_t> buffer;
  if (bytes >= kMinBytes) {
    FreeList& list = freeList();
    std::lock_guard lock(list.mutex);
    // The tightest fit, the most recently returned among equals; nothing over
    // twice the need, so a small picture never pins a large buffer.
    std::size_t best = list.count;
    for (std::size_t i = list.count; i-- > 0;) {
      const std::size_t capacity = list.buffers[i].capacity();
      if (capacity < bytes || capacity / 2 > bytes) continue;
      if (best == list.count || capacity < list.buffers[best].capacity()) best = i;
    }
    if (best != list.count) buffer = list.remove(best);
  }
  // A recycled buffer of the same size is left as it is; only growth writes.
  buffer.resize(bytes);
  return buffer;
}

void PixelBufferPool::give(std::vector<std::uint8_t>&& buffer) noexcept {
  const std::size_t capacity = buffer.capacity();
  if (capacity < kMinBytes || capacity > kMaxBytes) return;
  std::array<std::vector<std::uint8_t>, kMaxBuffers> dropped;  // freed after the lock
  std::size_t droppedCount = 0;
  FreeList& list = freeList();
  std::lock_guard lock(list.mutex);
  while (list.count == kMaxBuffers || list.bytes + capacity > kMaxBytes) {
    dropped[droppedCount++] = list.remove(0);
  }
  list.buffers[list.count++] = std::move(buffer);
  list.bytes += capacity;
}

std::size_t PixelBufferPool::count() {
  FreeList& list = freeList();
  std::lock_guard lock(list.mutex);
  return list.count;
}

}  // namespace nimb::detail
