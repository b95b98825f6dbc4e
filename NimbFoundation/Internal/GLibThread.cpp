#include <NimbFoundation/Internal/GLibThread.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace nimb::detail {

namespace {

thread_local bool tOnGLibThread = false;

}  // namespace

GMainContext* glibContext() {
  static GMainContext* const context = [] {
    GMainContext* c = g_main_context_new();
    std::thread([c] {
      tOnGLibThread = true;
      g_main_context_push_thread_default(c);
      GMainLoop* loop = g_main_loop_new(c, FALSE);
      g_main_loop_run(loop);
    }).detach();
    return c;
  }();
  return context;
}

bool onGLibThread() {
  return tOnGLibThread;
}

void runOnGLibThread(std::function<void()> work) {
  GSource* source = g_idle_source_new();
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(work)),
      [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  g_source_attach(source, glibContext());
  g_source_unref(source);
}

void runOnGLibThreadAndWait(const std::function<void()>& work) {
  if (onGLibThread()) {
    work();
    return;
  }
  struct Done {
    std::mutex lock;
    std::condition_variable changed;
    bool done = false;
  };
  auto done = std::make_shared<Done>();
  runOnGLibThread([&work, done] {
    work();
    std::lock_guard guard(done->lock);
    done->done = true;
    done->changed.notify_all();
  });
  std::unique_lock guard(done->lock);
  done->changed.wait(guard, [&] { return done->done; });
}

}  // namespace nimb::detail
