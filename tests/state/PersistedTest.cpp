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
  for (const char* id :
       {"", "x", "1111111122223333444455555555555", "AAAAAAAA-2222-3333-4444",
        "{1111111-2222-3333-4444-55555555555}", "11111111-2222-3333-44445-5555555555",
        "11111111-2222-3333-4444-55555555555G", "11111111-2222-3333-4444-5555555555555"}) {
    Json damaged = whole;
    damaged["lists"][1]["id"] = id;
    EXPECT_FALSE(Persisted::decode(damaged.dump())) << id;
  }
}

TEST(Persisted, RefusesWhatIsCutOrGoesOn) {
  const std::string_view whole = exampleBytes;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(Persisted::decode(whole.substr(0, size))) << size;
  }
  for (const std::string& tail : {std::string("x"), std::string("}"), std::string(exampleBytes)}) {
    EXPECT_FALSE(Persisted::decode(exampleBytes + tail)) << tail;
  }
}

// What a file system may leave of a file after a crash.
TEST(Persisted, RefusesZeroBytes) {
  for (const std::size_t count : {1U, 4096U}) {
    const std::string zeros(count, '\0');
    EXPECT_FALSE(Persisted::decode(zeros));
    EXPECT_FALSE(Persisted::decode(exampleBytes + zeros)) << count;
    EXPECT_FALSE(Persisted::decode(exampleBytes + zeros + "{")) << count;
    std::string within = exampleBytes;
    EXPECT_FALSE(Persisted::decode(within.replace(within.find("ads"), 3, zeros))) << count;
  }
}

TEST(Persisted, RefusesWhatIsNoJSON) {
  const std::string nested(1000000, '[');
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += R"({"a":)";
  const std::string closed = std::string(100000, '[') + std::string(100000, ']');
  const std::string cases[] = {
      "",
      "null",
      "[]",
      "\"lists\"",
      withMember(R"("x":")"
                 "\xFF\""),
      withMember(R"("x":"\ud800")"),
      withMember("\"x\":\"\n\""),
      withMember(R"("x":NaN)"),
      withMember(R"("x":01)"),
      withMember(R"('x':1)"),
      withMember("/* x */"),
      withDate("1e400"),
      withDate("-1" + std::string(400, '0')),
      withDate("Infinity"),
      nested,
      objects,
      R"({"lists":)" + closed + R"(,"customRules":"","pausedSites":[]})",
  };
  for (const std::string& text : cases) {
    EXPECT_FALSE(Persisted::decode(text)) << text.substr(0, 100);
  }
}

TEST(Persisted, IgnoresNestingInUnknownMembers) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_EQ(Persisted::decode(withMember(R"("x":)" + deep)), example);
}

}  // namespace
}  // namespace tamsel
