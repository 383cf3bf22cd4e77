#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "compiler/FilterCompiler.h"

namespace tamsel {
namespace {

// The users' page gives filters under each reason; what it says must be so.
TEST(SkippedLinesPage, GivesTheReasonOfEveryExample) {
  std::ifstream page(TAMSEL_SKIPPED_LINES_PAGE);
  ASSERT_TRUE(page);
  const std::string heading = "### \"", fence = "```";
  std::string reason;
  int reasons = 0;
  bool isInExamples = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with(heading)) {
      ASSERT_EQ(line.back(), '"') << line;
      reason = line.substr(heading.size(), line.size() - heading.size() - 1);
      ++reasons;
    } else if (isInExamples && line != fence) {
      SCOPED_TRACE(line);
      const FilterCompiler::Input input{{}, "", line};
      const ParseOutput output = FilterCompiler::parse({&input, 1});
      EXPECT_EQ(output.rules.size(), 0);
      ASSERT_EQ(output.skipped.size(), 1);
      EXPECT_EQ(output.skipped[0].reason.view(), reason);
    } else if (isInExamples) {
      reason.clear();  // what follows up to the next reason is no example of it
      isInExamples = false;
    } else if (line == fence && !reason.empty()) {
      isInExamples = true;
    }
  }
  EXPECT_GT(reasons, 10);
}

}  // namespace
}  // namespace tamsel
