#include "ui/Symbols.h"

#include <array>
#include <stdexcept>
#include <utility>

namespace tamsel::Symbols {

std::string icon(std::string_view symbol) {
  using Pair = std::pair<std::string_view, const char*>;
  // Those that begin with "tamsel-" are among the program's resources.
  static constexpr std::array icons{
      Pair{"safari", "web-browser-symbolic"},
      Pair{"list.bullet", "view-list-bullet-symbolic"},
      Pair{"shield.lefthalf.filled", "tamsel-shield-symbolic"},
      Pair{"magnifyingglass", "system-search-symbolic"},
      Pair{"pencil.and.list.clipboard", "tamsel-clipboard-symbolic"},
      Pair{"chevron.left", "go-previous-symbolic"},
      Pair{"chevron.right", "go-next-symbolic"},
      Pair{"xmark", "window-close-symbolic"},
      Pair{"arrow.clockwise", "view-refresh-symbolic"},
      Pair{"hand.raised.fill", "tamsel-hand-symbolic"},
      Pair{"info.circle", "tamsel-info-symbolic"},
      Pair{"plus", "list-add-symbolic"},
      Pair{"trash", "user-trash-symbolic"},
      Pair{"square.and.arrow.up", "tamsel-export-symbolic"},
      Pair{"checkmark.circle", "tamsel-check-symbolic"},
      Pair{"checkmark.circle.fill", "tamsel-check-filled-symbolic"},
      Pair{"xmark.octagon.fill", "tamsel-blocked-symbolic"},
  };
  for (const auto& [name, iconName] : icons) {
    if (name == symbol) return iconName;
  }
  throw std::out_of_range("no symbol " + std::string(symbol));
}

}  // namespace tamsel::Symbols
