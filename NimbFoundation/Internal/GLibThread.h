// GLibThread: the kit's one GLib thread. A library thread, started on first
// use and kept for the life of the process, runs a GMainContext of its own;
// every GDBus conversation of the kit (the photo picker's desktop portal,
// GeoClue's location client) lives on it, so their signals and async
// replies arrive there and never on a host thread.
//
// Rules for work posted here: it must not block for long (use GDBus's
// async calls), and it must not throw.
//
// Thread rule: every function may be called from any thread.
#pragma once

#include <gio/gio.h>

#include <functional>

namespace nimb::detail {

// The thread's main context (the thread-default context on that thread).
GMainContext* glibContext();
// Whether the caller is the GLib thread.
bool onGLibThread();
// Runs `work` on the GLib thread on a later turn of its loop.
void runOnGLibThread(std::function<void()> work);
// Runs `work` on the GLib thread and returns once it has run; runs it at
// once when called from that thread.
void runOnGLibThreadAndWait(const std::function<void()>& work);

}  // namespace nimb::detail
