#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "state/Persisted.h"

namespace tamsel {
namespace {

using namespace std::string_literals;
using Json = nlohmann::ordered_json;
using testing::HasSubstr;

Uuid uuid(std::string_view text) {
  return Uuid::parse(text).value();
}

const Persisted example{.lists = {{.id = uuid("abcdef01-2345-6789-abcd-ef0123456789"),
                                   .name = "Größe \"1\"",
                                   .url = "https://lists.example/a.txt",
                                   .text = "! Title: x\n||ads.example^\t\\",
                                   .enabled = false,
                                   .updated = Date{750000000.25},
                                   .lastError = "HTTP 404"},
                                  {.id = uuid("11111111-2222-3333-4444-555555555555"),
                                   .name = "",
                                   .text = "",
                                   .isBuiltIn = true}},
                        .customRules = "/ads/*\n##.漢字🙂",
                        .pausedSites = {"cdn.example", "site.example"}};

constexpr const char* exampleBytes =
    R"({"lists":[{"id":"ABCDEF01-2345-6789-ABCD-EF0123456789","name":"Größe \"1\"",)"
    R"("url":"https:\/\/lists.example\/a.txt","text":"! Title: x\n||ads.example^\t\\",)"
    R"("enabled":false,"updated":750000000.25,"isBuiltIn":false,"lastError":"HTTP 404"},)"
    R"({"id":"11111111-2222-3333-4444-555555555555","name":"","text":"","enabled":true,)"
    R"("isBuiltIn":true}],"customRules":"\/ads\/*\n##.漢字🙂",)"
    R"("pausedSites":["cdn.example","site.example"]})";

const std::string nested = std::string(100000, '[') + std::string(100000, ']');

// The example with one more member in front.
std::string withMember(const std::string& member) {
  return "{" + member + "," + std::string(exampleBytes).substr(1);
}

// The example with "updated" as it is written here.
std::string withDate(const std::string& date) {
  std::string text = exampleBytes;
  const std::string was = "750000000.25";
  return text.replace(text.find(was), was.size(), date);
}

TEST(Persisted, IsWrittenByteForByte) {
  EXPECT_EQ(example.encode(), exampleBytes);
  EXPECT_EQ(Persisted().encode(), R"({"lists":[],"customRules":"","pausedSites":[]})");
}

TEST(Persisted, ComesBackAsItWas) {
  EXPECT_EQ(Persisted::decode(exampleBytes), example);
  Persisted odd = example;
  for (unsigned char c = 0; c < 0x80; ++c) odd.customRules += static_cast<char>(c);
  odd.customRules += "\u0085\u2028\uFEFF\uFFFF";
  odd.lists[0].updated = Date::now();
  odd.lists[0].url = "";  // there, though empty
  odd.lists[1].updated = Date{-0.1};
  EXPECT_EQ(Persisted::decode(odd.encode()), odd);
  EXPECT_EQ(odd.encodedLength(), odd.encode().size());
  EXPECT_LE(odd.encodedLength(), odd.mostEncodedLength());
  Persisted longest{.lists = {}, .customRules = std::string(100000, '\x01'), .pausedSites = {}};
  EXPECT_LE(longest.encodedLength(), longest.mostEncodedLength());
}

TEST(Persisted, WritesOnlyUTF8) {
  Persisted broken;
  broken.customRules = "a\xFF/\xC3";
  broken.lists = {{.name = "\xED\xA0\x80", .text = "\xE2\x80"}};
  const std::optional<Persisted> read = Persisted::decode(broken.encode());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->customRules, "a\uFFFD/\uFFFD");
  EXPECT_THAT(read->lists[0].name, HasSubstr("\uFFFD"));
  EXPECT_EQ(read->lists[0].id, broken.lists[0].id);
}

TEST(Persisted, ReadsWhatOthersMayHaveWritten) {
  // Members back to front, unknown ones between, blanks, lower-case identifiers.
  const auto reversed = [](const Json& object) {
    Json result = {{"version", {{"lists", {1, nullptr}}}}};
    for (auto member = object.rbegin(); member != object.rend(); ++member) {
      result[member.key()] = member.value();
    }
    return result;
  };
  Json json = reversed(Json::parse(exampleBytes));
  for (Json& list : json["lists"]) list = reversed(list);
  json["lists"][0]["id"] = "abcdef01-2345-6789-ABCD-EF0123456789";
  EXPECT_EQ(Persisted::decode("\r\n\t " + json.dump(2, ' ', true) + "\n"), example);
  EXPECT_EQ(Persisted::decode(withMember(R"("x":)" + nested)), example);

  Persisted bare = example;
  bare.lists[0].url = bare.lists[0].lastError = std::nullopt;
  bare.lists[0].updated = std::nullopt;
  for (const char* name : {"url", "updated", "lastError"}) json["lists"][0][name] = nullptr;
  EXPECT_EQ(Persisted::decode(json.dump()), bare);
  for (const char* name : {"url", "updated", "lastError"}) json["lists"][0].erase(name);
  EXPECT_EQ(Persisted::decode(json.dump()), bare);
}

TEST(Persisted, TakesTheLastOfAMemberThatIsThereTwice) {
  EXPECT_EQ(Persisted::decode(withMember(R"("customRules":1,"lists":[{}])")), example);
  std::string text = exampleBytes;
  text.pop_back();
  EXPECT_FALSE(Persisted::decode(text + R"(,"lists":[{}]})"));
  const std::optional<Persisted> read = Persisted::decode(text + R"(,"pausedSites":["a"]})");
  ASSERT_TRUE(read);
  EXPECT_THAT(read->pausedSites, testing::ElementsAre("a"));
}

TEST(Persisted, ReadsDatesHoweverTheyAreWritten) {
  const std::pair<const char*, double> dates[] = {{"0", 0},
                                                  {"-1", -1},
                                                  {"750000000", 750000000},
                                                  {"7.5E+8", 750000000},
                                                  {"0.1", 0.1},
                                                  {"18446744073709551616", 18446744073709551616.0}};
  for (const auto& [text, seconds] : dates) {
    const std::optional<Persisted> read = Persisted::decode(withDate(text));
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(read->lists[0].updated, Date{seconds}) << text;
  }
}

TEST(Persisted, RefusesMissingMembersAndOtherTypes) {
  const struct {
    const char* member;
    std::string type;
    bool isOptional = false;
  } members[] = {
      {"/lists", "array"},
      {"/lists/1", "object"},
      {"/lists/1/id", "string"},
      {"/lists/1/name", "string"},
      {"/lists/0/url", "string", true},
      {"/lists/1/text", "string"},
      {"/lists/1/enabled", "boolean"},
      {"/lists/0/updated", "number", true},
      {"/lists/1/isBuiltIn", "boolean"},
      {"/lists/0/lastError", "string", true},
      {"/customRules", "string"},
      {"/pausedSites", "array"},
      {"/pausedSites/1", "string"},
  };
  const Json values[] = {nullptr, true, 0, 1.5, "true", Json::array(), Json::object()};
  const Json whole = Json::parse(exampleBytes);
  for (const auto& [member, type, isOptional] : members) {
    const Json::json_pointer place(member);
    for (const Json& value : values) {
      if (value.type_name() == type || (value.is_null() && isOptional)) continue;
      Json damaged = whole;
      damaged.at(place) = value;
      EXPECT_FALSE(Persisted::decode(damaged.dump())) << member << " " << value;
    }
    Json damaged = whole;
    Json& parent = damaged.at(place.parent_pointer());
    if (isOptional || parent.is_array()) continue;
    parent.erase(place.back());
    EXPECT_FALSE(Persisted::decode(damaged.dump())) << member;
  }
  Json damaged = whole;
  damaged["lists"][1]["id"] = "11111111-2222-3333-4444-55555555555G";
  EXPECT_FALSE(Persisted::decode(damaged.dump()));
}

TEST(Persisted, RefusesWhatIsNoJSON) {
  const std::string whole = exampleBytes;
  std::vector<std::string> cases;
  for (std::size_t size = 0; size < whole.size(); ++size) cases.push_back(whole.substr(0, size));
  for (const std::string& tail : {"x"s, "}"s, whole}) cases.push_back(whole + tail);
  // Zero bytes are what a file system may leave of a file after a crash.
  for (const std::string& zeros : {"\0"s, std::string(4096, '\0')}) {
    std::string within = whole;
    within.replace(within.find("ads"), 3, zeros);
    cases.insert(cases.end(), {zeros, whole + zeros, whole + zeros + "{", within});
  }
  for (const char* member : {"\"x\":\"\xFF\"", R"("x":"\ud800")", "\"x\":\"\n\"", R"("x":NaN)",
                             R"("x":01)", R"('x':1)", "/* x */"}) {
    cases.push_back(withMember(member));
  }
  for (const std::string& date : {"1e400"s, "-1" + std::string(400, '0'), "Infinity"s}) {
    cases.push_back(withDate(date));
  }
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += R"({"a":)";
  cases.insert(cases.end(), {"null", "[]", "\"lists\"", std::string(1000000, '['), objects,
                             R"({"lists":)" + nested + R"(,"customRules":"","pausedSites":[]})"});
  for (const std::string& text : cases) {
    EXPECT_FALSE(Persisted::decode(text)) << text.substr(0, 1000);
  }
}

}  // namespace
}  // namespace tamsel
