#pragma once

#include <glib.h>

#include <functional>

/// Ways between the main thread, on which a GLib main loop runs, and the workers.
namespace tamsel::MainLoop {

/// Has the main loop of `context` call the function once, later. From any thread.
void call(GMainContext* context, std::function<void()> function);

/// Has some worker thread call the function, which must not throw. From any thread.
void callOnWorker(std::function<void()> function);

}  // namespace tamsel::MainLoop
