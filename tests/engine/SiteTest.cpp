#include <gtest/gtest.h>

#include <string>

#include "compiler/Unicode.h"
#include "engine/Site.h"
#include "tests/support/ExactCopy.h"

namespace tamsel {
namespace {

TEST(Site, ReducesHostsToTheirSite) {
  std::vector<std::pair<std::string, std::string>> cases = {
      // At most two labels are kept, in lower case and without empty ones.
      {"", ""},
      {"...", ""},
      {"C", "c"},
      {"B.C", "b.c"},
      {"x.a.b.c", "b.c"},
      {".a..b...c.", "b.c"},
      {"a.\u00C9.\u212A", "\u00E9.k"},
      // No public suffix of two labels, or nothing before it.
      {"CO.uk", "co.uk"},
      {"a.b.edu.au", "edu.au"},
      {"a.b.xco.uk", "xco.uk"},
      {"a.co.uk.b", "uk.b"},
      // No names.
      {"192.0.2.17", "2.17"},
      {"::1", "::1"},
  };
  for (const std::string suffix : {"co.uk", "org.uk", "ac.uk", "com.au", "net.au", "co.jp", "co.nz",
                                   "com.br", "co.in", "com.cn"}) {
    cases.emplace_back("b." + suffix, "b." + suffix);
    cases.emplace_back("x.A.B." + suffix + ".", "b." + suffix);
  }
  for (const auto& [host, key] : cases) {
    EXPECT_EQ(Site::key(test::ExactCopy(host)), key) << testing::PrintToString(host);
    const std::string lower = Unicode::lowercased(host);
    for (const auto& [other, otherKey] : cases) {
      EXPECT_EQ(Site::isSame(test::ExactCopy(lower), Unicode::lowercased(other)), key == otherKey)
          << testing::PrintToString(host) << testing::PrintToString(other);
    }
  }
}

}  // namespace
}  // namespace tamsel
