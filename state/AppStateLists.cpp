// The operations of AppState that change lists, paused sites and files of the user's.

#include <algorithm>
#include <filesystem>
#include <utility>

#include "compiler/Unicode.h"
#include "platform/files/Files.h"
#include "platform/http/Address.h"
#include "platform/mainloop/Awaiting.h"
#include "state/AppState.h"

namespace tamsel {
namespace {

constexpr std::string_view titleHeader = "! title:";
constexpr std::size_t titleDepth = 20;  // lines
constexpr const char* pastedName = "Pasted list";
constexpr const char* downloadedName = "List";
constexpr unsigned firstGoodStatus = 200;
constexpr unsigned firstBadStatus = 300;

bool beginsWithIgnoringCase(std::string_view text, std::string_view lowerCasePrefix) {
  return text.size() >= lowerCasePrefix.size() &&
         std::equal(lowerCasePrefix.begin(), lowerCasePrefix.end(), text.begin(),
                    [](char expected, char c) { return expected == Unicode::asciiLower(c); });
}

// Whether an entry is for the host or for one above it; both normalised.
bool covers(std::string_view entry, std::string_view host) {
  if (!host.ends_with(entry)) return false;
  host.remove_suffix(entry.size());
  return host.empty() || host.ends_with('.');
}

FilterList* find(std::vector<FilterList>& lists, const Uuid& id) {
  const auto found = std::find_if(lists.begin(), lists.end(),
                                  [&id](const FilterList& list) { return list.id == id; });
  return found == lists.end() ? nullptr : &*found;
}

}  // namespace

std::optional<std::string> AppState::title(std::string_view text) {
  std::size_t seen = 0;
  while (!text.empty() && seen < titleDepth) {
    std::size_t end = 0;
    while (end < text.size() && Unicode::lineBreakLength(text.substr(end)) == 0) ++end;
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end);
    text.remove_prefix(Unicode::lineBreakLength(text));
    if (line.empty()) continue;
    ++seen;
    if (!beginsWithIgnoringCase(line, titleHeader)) continue;
    const std::string_view found = Unicode::trimmed(line.substr(titleHeader.size()));
    if (!found.empty()) return std::string(found);
  }
  return std::nullopt;
}

void AppState::append(FilterList list) {
  lists.modify([&list](auto& all) { all.push_back(std::move(list)); });
  save();
  rebuild();
}

void AppState::addList(const std::string& name, const std::string& text) {
  append({.name = name.empty() ? title(text).value_or(pastedName) : name, .text = text});
}

Task<std::optional<std::string>> AppState::addListFromAddress(std::string name,
                                                              std::string urlString) {
  const std::string text(Unicode::stripped(urlString));
  const std::optional<Address> address = Address::parse(text);
  if (!address || (address->scheme != "http" && address->scheme != "https")) {
    co_return "Enter a valid http(s) URL.";
  }
  Text downloaded;
  try {
    auto downloading = download(text);
    downloaded = co_await downloading;
  } catch (const std::exception& error) {
    co_return std::string("Download failed: ") + error.what();
  }
  if (name.empty()) {
    name = title(downloaded).value_or(address->host.empty() ? downloadedName : address->host);
  }
  append({.name = std::move(name), .url = text, .text = downloaded, .updated = Date::now()});
  co_return std::nullopt;
}

void AppState::toggle(const Uuid& id) {
  const auto found = std::find_if(lists->begin(), lists->end(),
                                  [&id](const FilterList& list) { return list.id == id; });
  if (found == lists->end()) return;
  lists.modify([&id](auto& all) {
    FilterList& list = *find(all, id);
    list.enabled = !list.enabled;
  });
  save();
  rebuild();
}

void AppState::remove(const Uuid& id) {
  lists.modify([&id](auto& all) {
    std::erase_if(all, [&id](const FilterList& list) { return list.id == id && !list.isBuiltIn; });
  });
  save();
  rebuild();
}

void AppState::refresh(std::optional<Uuid> id) {
  tasks_.add(performRefresh(id));
}

Task<void> AppState::performRefresh(std::optional<Uuid> id) {
  isRefreshing = true;
  statusMessage = "Refreshing lists…";

  struct Target {
    Uuid id;
    std::string url;
  };
  std::vector<Target> targets;
  for (const FilterList& list : *lists) {
    if (list.url && (!id || *id == list.id)) targets.push_back({list.id, *list.url});
  }

  std::size_t failures = 0;
  for (const Target& target : targets) {
    if (!Address::parse(target.url)) continue;
    std::optional<Text> text;
    std::string error;
    try {
      auto downloading = download(target.url);
      text = co_await downloading;
    } catch (const std::exception& failure) {
      error = failure.what();
      ++failures;
    }
    // The list may be gone, or elsewhere, by now.
    const bool isThere = std::any_of(lists->begin(), lists->end(),
                                     [&](const FilterList& list) { return list.id == target.id; });
    if (!isThere) continue;
    lists.modify([&](auto& all) {
      FilterList& list = *find(all, target.id);
      if (!text) {
        list.lastError = error;
        return;
      }
      list.text = *text;
      list.updated = Date::now();
      list.lastError = std::nullopt;
    });
  }

  save();
  isRefreshing = false;
  if (targets.empty()) {
    statusMessage = "No downloadable lists to refresh.";
  } else if (failures > 0) {
    statusMessage = "Refreshed with " + std::to_string(failures) + " failure(s).";
  } else {
    statusMessage = "Refreshed " + std::to_string(targets.size()) + " list(s).";
  }
  rebuild();
}

Task<Text> AppState::download(std::string url) {
  auto transfer = platform_.httpClient.get(std::move(url));
  HttpClient::Response response = co_await transfer;
  if (response.status < firstGoodStatus || response.status >= firstBadStatus) {
    throw std::runtime_error("HTTP " + std::to_string(response.status));
  }
  auto decoding = detached([body = std::move(response.body)]() mutable {
    return Text(Unicode::repaired(std::move(body)));
  });
  co_return co_await decoding;
}

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

void AppState::exportJSON() {
  tasks_.add(performExport());
}

Task<void> AppState::performExport() {
  auto asking = platform_.savePanel.ask(
      {.fileName = "Tamsel-content-blocker.json",
       .message = "Saves the compiled WebKit content blocker JSON. Safari itself is not changed.",
       .mediaType = "application/json"});
  const std::optional<std::string> path = co_await asking;
  if (!path) co_return;
  const std::size_t rules = totalRules;
  auto writing = detached([path = *path, document = exportData_]() -> std::optional<std::string> {
    try {
      Files::replace(path, document->view());
      return std::nullopt;
    } catch (const Files::FileError& failure) {
      return failure.what();
    }
  });
  const std::optional<std::string> error = co_await writing;
  statusMessage = error ? "Export failed: " + *error
                        : "Exported " + std::to_string(rules) + " rules to " +
                              std::filesystem::path(*path).filename().string() + ".";
}

}  // namespace tamsel
