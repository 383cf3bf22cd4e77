#pragma once

#include <glib-object.h>

#include <type_traits>

#include "platform/mainloop/Uncaught.h"

namespace tamsel {

namespace detail {

// Calls a function without captures from C, which exceptions must not reach.
template <typename Handler, typename Result, typename... Arguments>
Result callGuarded(Arguments... arguments) {
  if constexpr (std::is_void_v<Result>) {
    Uncaught::guard([&] { Handler()(arguments...); });
  } else {
    Result result{};
    Uncaught::guard([&] { result = Handler()(arguments...); });
    return result;
  }
}

template <typename Handler, typename Result, typename... Arguments>
GCallback guardedCallback(Result (*)(Arguments...)) {
  return G_CALLBACK((&callGuarded<Handler, Result, Arguments...>));
}

}  // namespace detail

/// Connects a lambda without captures, whose parameters are those of the signal and `data`. What it
/// throws is Uncaught; the signal has then the answer 0.
template <typename Handler>
gulong connect(gpointer object, const char* signal, Handler handler, gpointer data) {
  return g_signal_connect(object, signal, detail::guardedCallback<Handler>(+handler), data);
}

}  // namespace tamsel
