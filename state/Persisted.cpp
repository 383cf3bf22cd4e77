#include "state/Persisted.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace tamsel {
namespace {

using Json = nlohmann::ordered_json;

// 2001-01-01 00:00:00 UTC, in seconds since 1970.
constexpr double referenceDate = 978307200;

Json encodeList(const FilterList& list) {
  Json json = {{"id", list.id.string()}, {"name", list.name}};
  if (list.url) json["url"] = *list.url;
  json["text"] = list.text.view();
  json["enabled"] = list.enabled;
  if (list.updated) json["updated"] = list.updated->seconds;
  json["isBuiltIn"] = list.isBuiltIn;
  if (list.lastError) json["lastError"] = *list.lastError;
  return json;
}

// The library converts between numbers and truth values; a state file must have the type itself.
const Json& checked(const Json& json, bool isOfType) {
  if (!isOfType) throw std::invalid_argument("wrong type");
  return json;
}

const std::string& stringOf(const Json& json) {
  return checked(json, json.is_string()).get_ref<const std::string&>();
}

bool truthOf(const Json& json) {
  return checked(json, json.is_boolean()).get<bool>();
}

const Json& arrayOf(const Json& json) {
  return checked(json, json.is_array());
}

// Null when the member is missing or null.
const Json* optionalMember(const Json& json, const char* name) {
  const auto found = json.find(name);
  return found == json.end() || found->is_null() ? nullptr : &*found;
}

FilterList decodeList(const Json& json) {
  const std::optional<Uuid> id = Uuid::parse(stringOf(json.at("id")));
  if (!id) throw std::invalid_argument("no identifier");
  FilterList list{.id = *id, .name = stringOf(json.at("name"))};
  if (const Json* url = optionalMember(json, "url")) list.url = stringOf(*url);
  list.text = stringOf(json.at("text"));
  list.enabled = truthOf(json.at("enabled"));
  if (const Json* updated = optionalMember(json, "updated")) {
    list.updated = Date{checked(*updated, updated->is_number()).get<double>()};
  }
  list.isBuiltIn = truthOf(json.at("isBuiltIn"));
  if (const Json* error = optionalMember(json, "lastError")) list.lastError = stringOf(*error);
  return list;
}

// Outside strings JSON has no "/".
std::string withEscapedSlashes(std::string_view json) {
  std::string escaped;
  escaped.reserve(json.size() + json.size() / 16);
  while (!json.empty()) {
    const std::size_t slash = json.find('/');
    escaped += json.substr(0, slash);
    if (slash == std::string_view::npos) break;
    escaped += "\\/";
    json.remove_prefix(slash + 1);
  }
  return escaped;
}

}  // namespace

Date Date::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration<double>(sinceEpoch).count() - referenceDate};
}

std::string Persisted::encode() const {
  Json json = {{"lists", Json::array()}, {"customRules", customRules}};
  for (const FilterList& list : lists) json["lists"].push_back(encodeList(list));
  json["pausedSites"] = pausedSites;
  return withEscapedSlashes(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::optional<Persisted> Persisted::decode(std::string_view text) {
  try {
    const Json json = Json::parse(text);
    Persisted persisted;
    for (const Json& list : arrayOf(json.at("lists"))) {
      persisted.lists.push_back(decodeList(list));
    }
    persisted.customRules = stringOf(json.at("customRules"));
    for (const Json& site : arrayOf(json.at("pausedSites"))) {
      persisted.pausedSites.push_back(stringOf(site));
    }
    return persisted;
  } catch (const Json::exception&) {
    return std::nullopt;
  } catch (const std::invalid_argument&) {
    return std::nullopt;
  }
}

}  // namespace tamsel
