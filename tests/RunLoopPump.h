// Waiting in tests and benchmarks: turn the run loop with a deadline, never
// sleep bare.
#pragma once

#include <chrono>
#include <functional>

#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

namespace nimb::test {

// Turns the calling thread's run loop until `done` holds or `seconds` pass;
// tests wait this way, never with bare sleeps.
inline bool pumpUntil(const std::function<bool()>& done, double seconds = 4) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done() && std::chrono::steady_clock::now() < deadline) RunLoop::current().runOnce(0.01);
  return done();
}
// Turns the loop for `seconds`, to see that nothing (more) arrives.
inline void pumpFor(double seconds) {
  pumpUntil([] { return false; }, seconds);
}

}  // namespace nimb::test
