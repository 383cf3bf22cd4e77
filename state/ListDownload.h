#pragma once

#include <string>

#include "compiler/Text.h"
#include "platform/http/HttpClient.h"
#include "platform/mainloop/Task.h"

/// Filter lists from addresses.
namespace tamsel::ListDownload {

/// The text of the list; bytes that are no UTF-8 become U+FFFD. Throws what the client throws, and
/// std::runtime_error with a sentence when the answer is no list.
Task<Text> get(HttpClient& client, std::string url);

}  // namespace tamsel::ListDownload
