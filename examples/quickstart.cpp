// The README's quick start: store entries in the shared disk cache and read
// one back.
#include <cstdio>

#include <NimbFoundation/Images/VQCache.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

int main() {
  auto cache = nimb::VQCache::currentCache();  // entries live 86400 s by default
  cache->setString("hello", "greeting");       // or setData / setImage / setPlist
  cache->setData({1, 2, 3}, "numbers", 60.0);  // with a lifetime of 60 s

  // The file write runs on the cache's queue; until it lands the key reads
  // as missing. The index is saved 0.3 s after the last set, on the main
  // run loop: turn it before exiting so nothing is lost.
  cache->diskOperationQueue().waitUntilAllOperationsAreFinished();
  nimb::RunLoop::main().runUntilIdle();

  if (auto text = cache->stringForKey("greeting")) std::puts(text->c_str());
  return 0;
}
