// Message sending through the object runtime against a C++ virtual call on
// the same kind of object, in the same run: a counter whose method adds its
// argument. The target is a send at no more than 3x the virtual call.
//
// Also measured: a send that carries a std::string (the kit's class methods
// take one), and the kit's own sent operation View::setHidden.
#include <memory>
#include <string>

#include <NimbFoundation/Platform/Graphics/View.h>
#include <NimbFoundation/Platform/Runtime.h>

#include "BenchSupport.h"

namespace {

using nimb::Object;
using nimb::Selector;

struct VirtualBase {
  virtual ~VirtualBase() = default;
  virtual long add(long amount) = 0;
  virtual std::size_t measure(std::string text) = 0;
};

struct VirtualCounter : VirtualBase {
  long total = 0;
  long add(long amount) override { return total += amount; }
  std::size_t measure(std::string text) override { return text.size() + total; }
};
// A second override, so the compiler cannot turn the baseline's calls into
// direct ones: the baseline is a real virtual dispatch.
struct DoublingCounter : VirtualBase {
  long total = 0;
  long add(long amount) override { return total += 2 * amount; }
  std::size_t measure(std::string text) override { return 2 * text.size() + total; }
};

[[gnu::noinline]] std::unique_ptr<VirtualBase> makeCounter(bool doubling) {
  if (doubling) return std::make_unique<DoublingCounter>();
  return std::make_unique<VirtualCounter>();
}

struct Counter : Object {
  static nimb::Class* classObject() {
    static nimb::Class* const cls = [] {
      nimb::Class* c = nimb::objc_registerClass("BenchCounter", Object::classObject());
      nimb::class_addMethod(
          c, nimb::sel_registerName("add:"), +[](Object* self, Selector, long amount) {
            return static_cast<Counter*>(self)->total += amount;
          });
      nimb::class_addMethod(
          c, nimb::sel_registerName("measure:"), +[](Object* self, Selector, std::string text) {
            return text.size() + static_cast<Counter*>(self)->total;
          });
      // A few more methods, so the cache holds more than the one probed.
      for (const char* name : {"a", "b", "c", "d", "e", "f"}) {
        nimb::class_addMethod(
            c, nimb::sel_registerName(name), +[](Object*, Selector) {});
      }
      return c;
    }();
    return cls;
  }
  Counter() : Object(classObject()) {}
  long total = 0;
};

void VirtualCall(benchmark::State& state) {
  std::unique_ptr<VirtualBase> counter = makeCounter(state.thread_index() > 1000);
  VirtualBase* target = counter.get();
  long amount = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(target);
    benchmark::DoNotOptimize(target->add(amount));
  }
}
BENCHMARK(VirtualCall);

void MessageSend(benchmark::State& state) {
  Counter counter;
  Object* target = &counter;
  const Selector add = nimb::sel_registerName("add:");
  long amount = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(target);
    benchmark::DoNotOptimize(nimb::msgSend<long>(target, add, amount));
  }
}
BENCHMARK(MessageSend);

const std::string kText = "a text too long for the small-string buffer";

void VirtualCallString(benchmark::State& state) {
  std::unique_ptr<VirtualBase> counter = makeCounter(state.thread_index() > 1000);
  VirtualBase* target = counter.get();
  for (auto _ : state) {
    benchmark::DoNotOptimize(target);
    benchmark::DoNotOptimize(target->measure(kText));
  }
}
BENCHMARK(VirtualCallString);

void MessageSendString(benchmark::State& state) {
  Counter counter;
  Object* target = &counter;
  const Selector measure = nimb::sel_registerName("measure:");
  for (auto _ : state) {
    benchmark::DoNotOptimize(target);
    benchmark::DoNotOptimize(nimb::msgSend<std::size_t>(target, measure, kText));
  }
}
BENCHMARK(MessageSendString);

void ViewSetHidden(benchmark::State& state) {
  auto view = std::make_shared<nimb::View>();
  bool hidden = false;
  for (auto _ : state) {
    view->setHidden(hidden = !hidden);
    benchmark::DoNotOptimize(view->isHidden());
  }
}
BENCHMARK(ViewSetHidden);

}  // namespace

int main(int argc, char** argv) {
  return nimb::bench::runWithRatios(
      argc, argv, {{"MessageSend", "VirtualCall"}, {"MessageSendString", "VirtualCallString"}});
}
