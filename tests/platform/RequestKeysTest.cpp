#include <gtest/gtest.h>

#include <string>

#include "platform/webview/RequestKeys.h"

namespace tamsel {
namespace {

TEST(RequestKeys, KnowEachAddressOnceWithoutItsFragment) {
  const std::uint64_t seed = RequestKeys::makeSeed();
  RequestKeys keys;
  // Often enough to grow many times.
  for (const bool isNew : {true, false}) {
    for (int i = 0; i < 100000; ++i) {
      const std::string url = "http://ads.test/" + std::to_string(i);
      EXPECT_EQ(keys.insert(RequestKeys::keyOf(url, seed)), isNew) << url;
      EXPECT_FALSE(keys.insert(RequestKeys::keyOf(url + "#part", seed))) << url;
    }
  }
  EXPECT_TRUE(keys.insert(RequestKeys::keyOf("http://ads.test/1?#", seed)));
  keys.clear();
  EXPECT_TRUE(keys.insert(RequestKeys::keyOf("", seed)));
  EXPECT_NE(RequestKeys::keyOf("http://ads.test/", 1), RequestKeys::keyOf("http://ads.test/", 2));
}

}  // namespace
}  // namespace tamsel
