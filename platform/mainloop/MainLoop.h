#pragma once

#include <glib.h>

#include <functional>

/// Ways between the main thread, on which a GLib main loop runs, and the workers. What a function
/// throws that is called here is Uncaught.
namespace tamsel::MainLoop {

/// Has the main loop of `context` call the function once, later. From any thread.
void call(GMainContext* context, std::function<void()> function);

/// Has some worker thread call the function. From any thread. Throws std::runtime_error when the
/// system has no threads.
void callOnWorker(std::function<void()> function);

}  // namespace tamsel::MainLoop
