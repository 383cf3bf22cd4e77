// The operations of AppState on lists: adding, switching, removing, refreshing.

#include <algorithm>
#include <utility>

#include "compiler/Unicode.h"
#include "platform/http/Address.h"
#include "platform/mainloop/Uncaught.h"
#include "state/AppState.h"
#include "state/ListDownload.h"

namespace tamsel {
namespace {

constexpr std::string_view titleHeader = "! title:";
constexpr std::size_t titleDepth = 20;  // lines
constexpr const char* pastedName = "Pasted list";
constexpr const char* downloadedName = "List";

bool beginsWithIgnoringCase(std::string_view text, std::string_view lowerCasePrefix) {
  return text.size() >= lowerCasePrefix.size() &&
         std::equal(lowerCasePrefix.begin(), lowerCasePrefix.end(), text.begin(),
                    [](char expected, char c) { return expected == Unicode::asciiLower(c); });
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

std::optional<std::string> AppState::refusalOf(const FilterList& list) const {
  Persisted with = persisted();
  std::erase_if(with.lists, [&list](const FilterList& other) { return other.id == list.id; });
  with.lists.push_back(list);
  const std::string refusal = StateFile::refusalOf(with);
  if (refusal.empty()) return std::nullopt;
  return "The list \"" + list.name + "\" is too large. " + refusal;
}

void AppState::append(FilterList list) {
  lists.modify([&list](auto& all) { all.push_back(std::move(list)); });
  save();
  rebuild();
}

void AppState::addList(const std::string& name, const std::string& text) {
  FilterList list{.name = name.empty() ? title(text).value_or(pastedName) : name, .text = text};
  if (const std::optional<std::string> refusal = refusalOf(list)) {
    notice = *refusal;
    return;
  }
  append(std::move(list));
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
    auto downloading = ListDownload::get(platform_.httpClient, text);
    downloaded = co_await downloading;
  } catch (const std::exception& error) {
    co_return std::string("Download failed: ") + error.what();
  }
  if (name.empty()) {
    name = title(downloaded).value_or(address->host.empty() ? downloadedName : address->host);
  }
  FilterList list{.name = std::move(name), .url = text, .text = downloaded, .updated = Date::now()};
  if (const std::optional<std::string> refusal = refusalOf(list)) co_return refusal;
  append(std::move(list));
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
  std::string outcome;
  try {
    auto downloading = downloadAgain(id);
    outcome = co_await downloading;
  } catch (...) {
    outcome = Uncaught::sentence(std::current_exception());
  }
  save();
  isRefreshing = false;
  statusMessage = outcome;
  rebuild();
}

// Returns what came of it, in a sentence.
Task<std::string> AppState::downloadAgain(std::optional<Uuid> id) {
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
      auto downloading = ListDownload::get(platform_.httpClient, target.url);
      text = co_await downloading;
    } catch (const std::exception& failure) {
      error = failure.what();
    }
    // The list may be gone, or elsewhere, by now.
    const auto found = std::find_if(lists->begin(), lists->end(),
                                    [&](const FilterList& list) { return list.id == target.id; });
    if (text && found != lists->end()) {
      FilterList renewed = *found;
      renewed.text = *text;
      error = refusalOf(renewed).value_or("");
    }
    const bool failed = !text || !error.empty();
    if (failed) ++failures;
    if (found == lists->end()) continue;
    lists.modify([&](auto& all) {
      FilterList& list = *find(all, target.id);
      if (failed) {
        list.lastError = error;
        return;
      }
      list.text = *text;
      list.updated = Date::now();
      list.lastError = std::nullopt;
    });
  }

  if (targets.empty()) co_return "No downloadable lists to refresh.";
  if (failures > 0) co_return "Refreshed with " + std::to_string(failures) + " failure(s).";
  co_return "Refreshed " + std::to_string(targets.size()) + " list(s).";
}

}  // namespace tamsel
