#pragma once

#include <string>
#include <string_view>

/// The program's symbols, each by what it shows.
namespace tamsel::Symbols {

/// The name of the icon, of the desktop's theme or of the program's own, for a symbol. Throws
/// std::out_of_range if there is no such symbol.
std::string icon(std::string_view symbol);

}  // namespace tamsel::Symbols
