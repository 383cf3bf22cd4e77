#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "compiler/Text.h"
#include "compiler/Uuid.h"
#include "tests/support/ExactCopy.h"

namespace tamsel {
namespace {

using namespace std::string_literals;
using test::ExactCopy;

TEST(TextPool, MakesTextsThatOutliveIt) {
  // More than several chunks hold, and some too long for any chunk.
  std::vector<Text> texts;
  std::vector<std::string> expected;
  Maybe<TextList> list;
  {
    TextPool pool;
    for (std::size_t i = 0; i < 20000; ++i) {
      expected.emplace_back(i % 5000 == 7 ? 700000 : i % 200, static_cast<char>('a' + i % 26));
      texts.push_back(pool.text(ExactCopy(expected.back())));
      if (i % 3 == 0) texts.back() = Text(texts.back());
    }
    const std::size_t ends[] = {1, 1, 3};
    list = pool.list("abc", ends);
    EXPECT_TRUE(pool.text("").sharesStorageWith(Text()));
    static const Text immortal = Text::immortal("for ever");  // kept where leak checkers see it
    texts.push_back(immortal);
    expected.emplace_back("for ever");
  }
  EXPECT_EQ(*list, (TextList{"a", "", "bc"}));
  EXPECT_FALSE((*list == TextList{"a", "b", "c"}));
  for (std::size_t i = 0; i < texts.size(); ++i) ASSERT_EQ(texts[i].view(), expected[i]) << i;
  // One that is kept keeps its bytes when all others are gone.
  const Text last = texts[19999];
  texts.clear();
  EXPECT_EQ(last.view(), expected[19999]);
}

TEST(Uuid, ReadsAndWritesItsText) {
  const std::string upper = "01234567-89AB-CDEF-FEDC-BA9876543210";
  for (const std::string& text : {upper, "01234567-89ab-cdef-FEDC-ba9876543210"s}) {
    const std::optional<Uuid> uuid = Uuid::parse(ExactCopy(text));
    ASSERT_TRUE(uuid) << text;
    EXPECT_EQ(uuid->string(), upper);
    EXPECT_EQ(uuid->bytes[0], 0x01);
    EXPECT_EQ(uuid->bytes[15], 0x10);
  }
  for (const std::string& text :
       {""s, upper.substr(0, 35), upper + "0", "{" + upper + "}",
        "0123456789AB-CDEF-FEDC-BA9876543210-"s, "01234567-89AB-CDEF-FEDC-BA987654321G"s,
        "01234567-89AB-CDEF-FEDCxBA9876543210"s, "01234567-89AB-CDEF-FEDC--A9876543210"s,
        "01234567-89AB-CDEF-FEDC-BA98765432\xC3\xA9"s}) {
    EXPECT_FALSE(Uuid::parse(ExactCopy(text))) << text;
  }
}

TEST(Uuid, RandomOnesDifferAndAreOfVersion4) {
  std::set<Uuid> seen;
  for (int i = 0; i < 1000; ++i) {
    const Uuid uuid = Uuid::random();
    EXPECT_TRUE(seen.insert(uuid).second);
    EXPECT_EQ(uuid.string()[14], '4');
    EXPECT_NE(std::string("89AB").find(uuid.string()[19]), std::string::npos);
  }
}

}  // namespace
}  // namespace tamsel
