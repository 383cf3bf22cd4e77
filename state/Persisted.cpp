#include "state/Persisted.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "compiler/Unicode.h"

namespace tamsel {
namespace {

using Json = nlohmann::json;

// 2001-01-01 00:00:00 UTC, in seconds since 1970.
constexpr double referenceDate = 978307200;

// "\u001f", for one byte; what is no UTF-8 takes three.
constexpr std::size_t longestEscape = 6;

// Where a JSON text goes, or only its length.
struct Length {
  void append(std::string_view text) { length += text.size(); }
  std::size_t length = 0;
};

// Appends to a JSON text. The lists' texts are megabytes of plain characters, which are copied in
// runs.
template <typename Output>
class Writer {
 public:
  explicit Writer(Output& output) : output_(output) {}

  void raw(std::string_view text) {
    output_.append(text);
    isFirstMember_ = text.ends_with('{');
  }

  void string(std::string_view text) {
    raw("\"");
    if (Unicode::isAscii(text)) {
      escaped(text);
    } else {
      escaped(Unicode::repaired(std::string(text)));
    }
    raw("\"");
  }

  // `,"name":` behind which a value is to follow.
  void name(std::string_view member) {
    raw(isFirstMember_ ? "\"" : ",\"");
    raw(member);
    raw("\":");
  }
  void member(std::string_view memberName, std::string_view value) {
    name(memberName);
    string(value);
  }
  void member(std::string_view memberName, bool value) {
    name(memberName);
    raw(value ? "true" : "false");
  }
  void member(std::string_view memberName, double value) {
    name(memberName);
    raw(Json(value).dump());
  }

 private:
  void escaped(std::string_view text) {
    while (!text.empty()) {
      const auto special = std::find_if(text.begin(), text.end(), [](char c) {
        return c == '"' || c == '\\' || c == '/' || static_cast<unsigned char>(c) < 0x20;
      });
      const auto plain = static_cast<std::size_t>(special - text.begin());
      output_.append(text.substr(0, plain));
      text.remove_prefix(plain);
      if (text.empty()) return;
      escape(text.front());
      text.remove_prefix(1);
    }
  }

  void escape(char c) {
    constexpr std::string_view plain = "\"\\/\b\t\n\f\r";
    constexpr std::string_view letters = "\"\\/btnfr";
    constexpr std::string_view digits = "0123456789abcdef";
    std::string escape = "\\";
    if (const std::size_t at = plain.find(c); at != std::string_view::npos) {
      escape += letters[at];
    } else {
      escape += "u00";
      escape += digits[static_cast<std::size_t>(c) >> 4];
      escape += digits[static_cast<std::size_t>(c) & 0xF];
    }
    output_.append(escape);
  }

  Output& output_;
  bool isFirstMember_ = false;
};

template <typename Output>
void write(Writer<Output>& writer, const FilterList& list) {
  writer.raw("{");
  writer.member("id", list.id.string());
  writer.member("name", list.name);
  if (list.url) writer.member("url", *list.url);
  writer.member("text", list.text.view());
  writer.member("enabled", list.enabled);
  if (list.updated) writer.member("updated", list.updated->seconds);
  writer.member("isBuiltIn", list.isBuiltIn);
  if (list.lastError) writer.member("lastError", *list.lastError);
  writer.raw("}");
}

template <typename Output>
void write(Output& output, const Persisted& state) {
  Writer writer(output);
  const auto writeAll = [&writer](const auto& values, const auto& writeOne) {
    writer.raw("[");
    for (const auto& value : values) {
      if (&value != values.data()) writer.raw(",");
      writeOne(value);
    }
    writer.raw("]");
  };
  writer.raw("{");
  writer.name("lists");
  writeAll(state.lists, [&writer](const FilterList& list) { write(writer, list); });
  writer.member("customRules", std::string_view(state.customRules));
  writer.name("pausedSites");
  writeAll(state.pausedSites, [&writer](const std::string& site) { writer.string(site); });
  writer.raw("}");
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

}  // namespace

Date Date::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration<double>(sinceEpoch).count() - referenceDate};
}

std::string Persisted::encode() const {
  constexpr std::size_t usualEscapes = 8;  // there are fewer than one in so many bytes
  std::string text;
  const std::size_t length = mostEncodedLength() / longestEscape;
  text.reserve(length + length / usualEscapes);  // growing it takes up to three times its memory
  write(text, *this);
  return text;
}

std::size_t Persisted::encodedLength() const {
  Length counted;
  write(counted, *this);
  return counted.length;
}

std::size_t Persisted::mostEncodedLength() const {
  constexpr std::size_t mostBesides = 1024;  // names of members, a date, an identifier
  std::size_t length = mostBesides + customRules.size();
  for (const FilterList& list : lists) {
    length += mostBesides + list.name.size() + list.text.size() + list.url.value_or("").size() +
              list.lastError.value_or("").size();
  }
  for (const std::string& site : pausedSites) length += mostBesides + site.size();
  return length * longestEscape;
}

std::optional<Persisted> Persisted::decode(std::string_view text) {
  // The library takes a zero byte, which JSON never has, for the end.
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
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
