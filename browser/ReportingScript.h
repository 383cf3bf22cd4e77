#pragma once

#include <string_view>

/// Pages tell the browser what they failed to load.
namespace tamsel::Reporting {

/// The message handler that the script posts to: {"url": string, "type": string}.
inline constexpr const char* messageName = "tmBlocked";

/// A script for every frame. It posts each failed load of an element, with the element's tag name
/// as the type, each `fetch` that is rejected, as "fetch", and each failed XMLHttpRequest, as
/// "xhr". A page sees no difference but the names of functions.
extern const std::string_view script;

/// The resource type of the content-blocker format that a message's type stands for.
std::string_view resourceType(std::string_view messageType);

}  // namespace tamsel::Reporting
