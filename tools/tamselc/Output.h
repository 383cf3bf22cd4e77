#pragma once

#include <string>
#include <string_view>

namespace tamsel::tamselc {

/// Writes to standard output. Throws Files::FileError.
void writeOutput(std::string_view bytes);

/// Writes to standard error; where that fails there is nobody left to tell.
void writeMessage(std::string_view text) noexcept;

/// Text from a list or a request, made safe to show on a terminal: control characters, which could
/// move the cursor or hide text, become "?".
std::string printable(std::string_view text);

}  // namespace tamsel::tamselc
