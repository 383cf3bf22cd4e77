#pragma once

#include <string_view>

/// Pages tell the browser what they failed to load.
namespace tamsel::Reporting {

/// The message handler that is posted to: {"url": string, "type": string}.
inline constexpr const char* messageName = "tmBlocked";

/// A script for every frame, in a world that pages do not reach. It posts each failed load of an
/// element, with the element's tag name as the type, and what the other script passes on. Each
/// report is posted once, none is long, and when there are many they wait in the page.
extern const std::string_view script;

/// A script for every frame, among the page's own. It passes on each `fetch` that is rejected, as
/// "fetch", and each failed XMLHttpRequest, as "xhr". A page sees no difference but the names of
/// functions.
extern const std::string_view pageScript;

/// The resource type of the content-blocker format that a message's type stands for.
std::string_view resourceType(std::string_view messageType);

}  // namespace tamsel::Reporting
