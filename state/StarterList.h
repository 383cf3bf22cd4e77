#pragma once

#include <string_view>

#include "compiler/Uuid.h"

/// The list that every user starts with.
namespace tamsel::Starter {

/// The identifier of the starter list.
extern const Uuid id;
/// The identifier under which the user's custom rules are compiled; never a list's.
extern const Uuid customID;
inline constexpr std::string_view name = "Tamsel Starter List";
/// The filter text: 40 lines, no line feed after the last.
extern const std::string_view text;

/// The hosts that the starter list, the demo page and the tester's first request agree on.
namespace Hosts {
/// The site that the demo page pretends to be.
inline constexpr std::string_view demo = "example.org";
/// Blocked by a rule without options, but for images below "/allowed/".
inline constexpr std::string_view ads = "ads.example.com";
/// Blocked by the first rule; the demo page asks a subdomain of it.
inline constexpr std::string_view adNetwork = "doubleclick.net";
/// Blocked for scripts only.
inline constexpr std::string_view tagManager = "googletagmanager.com";
/// Blocked for images and scripts.
inline constexpr std::string_view tracker = "tracker.example.net";
}  // namespace Hosts

}  // namespace tamsel::Starter
