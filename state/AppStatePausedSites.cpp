// The sites on which AppState pauses filtering.

#include <algorithm>

#include "compiler/Unicode.h"
#include "state/AppState.h"

namespace tamsel {
namespace {

// Whether an entry is for the host or for one above it; both normalised.
bool covers(std::string_view entry, std::string_view host) {
  if (!host.ends_with(entry)) return false;
  host.remove_suffix(entry.size());
  return host.empty() || host.ends_with('.');
}

}  // namespace

std::string AppState::siteName(std::string_view host) {
  constexpr std::string_view prefix = "www.";
  std::string lower = Unicode::lowercased(host);
  return lower.starts_with(prefix) ? lower.substr(prefix.size()) : lower;
}

bool AppState::isPaused(std::string_view host) const {
  const std::string name = siteName(host);
  return !name.empty() &&
         std::any_of(pausedSites->begin(), pausedSites->end(),
                     [&name](const std::string& entry) { return covers(entry, name); });
}

void AppState::setPaused(std::string_view host, bool paused) {
  const std::string name = siteName(host);
  if (name.empty()) return;
  pausedSites.modify([&](std::set<std::string>& sites) {
    if (paused) {
      sites.insert(name);
    } else {
      std::erase_if(sites, [&name](const std::string& entry) { return covers(entry, name); });
    }
  });
  save();
}

}  // namespace tamsel
