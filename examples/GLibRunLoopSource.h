// GLibRunLoopSource: turns a kit RunLoop from a GLib main context, so a GTK
// or GLib application runs the kit's main loop from its own, with no polling
// period: the source watches RunLoop::fileDescriptor() and calls runOnce(0)
// when it turns readable.
//
//   GSource* source = nimb::example::attachRunLoop(nimb::RunLoop::main(), nullptr);
//   g_main_loop_run(loop);  // the kit's tasks, timers and downloads run in here
//   g_source_destroy(source);
//   g_source_unref(source);
//
// Attach a loop to the context its own thread iterates (the main loop to
// the default context, iterated by the main thread): runOnce() must run on
// the loop's thread. Header-only so an application can copy it as it is.
#pragma once

#include <glib.h>

#include <NimbFoundation/Platform/Concurrency/RunLoop.h>

namespace nimb::example {

struct RunLoopSource {
  GSource source;
  nimb::RunLoop* loop;
  gpointer tag;
};

inline gboolean runLoopSourcePrepare(GSource* source, gint* timeout) {
  // No timeout of our own: the descriptor wakes the context for posted work
  // and for delayed requests alike.
  *timeout = -1;
  return reinterpret_cast<RunLoopSource*>(source)->loop->nextTimeout() == 0;
}

inline gboolean runLoopSourceCheck(GSource* source) {
  auto* self = reinterpret_cast<RunLoopSource*>(source);
  return (g_source_query_unix_fd(source, self->tag) & G_IO_IN) != 0 ||
         self->loop->nextTimeout() == 0;
}

inline gboolean runLoopSourceDispatch(GSource* source, GSourceFunc, gpointer) {
  reinterpret_cast<RunLoopSource*>(source)->loop->runOnce(0);
  return G_SOURCE_CONTINUE;
}

inline GSourceFuncs runLoopSourceFuncs = {
    runLoopSourcePrepare, runLoopSourceCheck, runLoopSourceDispatch, nullptr, nullptr, nullptr};

// Attaches `loop` to `context` (null: the default one). Returns the source
// (one reference, the caller's), or null when the loop has no descriptor.
inline GSource* attachRunLoop(nimb::RunLoop& loop, GMainContext* context) {
  const int fd = loop.fileDescriptor();
  if (fd < 0) return nullptr;
  GSource* source = g_source_new(&runLoopSourceFuncs, sizeof(RunLoopSource));
  auto* self = reinterpret_cast<RunLoopSource*>(source);
  self->loop = &loop;
  self->tag = g_source_add_unix_fd(source, fd, G_IO_IN);
  g_source_set_name(source, "nimb::RunLoop");
  g_source_attach(source, context);
  return source;
}

}  // namespace nimb::example
