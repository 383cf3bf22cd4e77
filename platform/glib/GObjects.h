#pragma once

#include <glib-object.h>

#include <memory>
#include <string>

/// What C libraries give, held the C++ way.
namespace tamsel {

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};

/// Owns one reference.
template <typename T>
using GObjectPtr = std::unique_ptr<T, Unref>;

/// The text; empty for null.
inline std::string text(const char* string) {
  return string == nullptr ? std::string() : string;
}

}  // namespace tamsel
