#pragma once

#include <string>
#include <string_view>

/// The page that the browser shows first. It pretends to be a site with advertisements.
namespace tamsel::DemoPage {

/// The site that it pretends to be: of a domain reserved for documentation.
extern const std::string_view host;

/// The page, titled "Tamsel demo page". With the starter list three boxes of it are hidden and four
/// of its five requests blocked.
std::string html();

}  // namespace tamsel::DemoPage
