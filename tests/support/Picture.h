#pragma once

#include <string>

namespace tamsel::test {

/// Saves a picture of the window with this title as PNG, once what it shows no longer changes.
/// Throws std::runtime_error if there is none.
void savePicture(const std::string& title, const std::string& path);

}  // namespace tamsel::test
