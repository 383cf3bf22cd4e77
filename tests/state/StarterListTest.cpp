#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "compiler/FilterCompiler.h"
#include "engine/Engine.h"
#include "state/StarterList.h"
#include "tests/support/Rules.h"

namespace tamsel {
namespace {

ParseOutput compiled() {
  const FilterCompiler::Input input{Starter::id, std::string(Starter::name), Starter::text};
  return FilterCompiler::parse({&input, 1});
}

// By them what a user saved is found again.
TEST(StarterList, KeepsItsIdentifiers) {
  EXPECT_EQ(Starter::id.string(), "11111111-2222-3333-4444-555555555555");
  EXPECT_EQ(Starter::customID.string(), "99999999-2222-3333-4444-555555555555");
}

TEST(StarterList, CompilesToRulesOfEveryKindAndSkips) {
  const ParseOutput output = compiled();
  std::map<RuleKind, int> kinds;
  for (const SourcedRule& rule : output.rules) ++kinds[rule.kind];
  EXPECT_EQ(kinds, (std::map<RuleKind, int>{
                       {RuleKind::block, 28}, {RuleKind::exception, 2}, {RuleKind::cosmetic, 6}}));
  std::vector<std::string> reasons;
  for (const SkippedRule& skipped : output.skipped) reasons.push_back(skipped.reason.string());
  EXPECT_EQ(reasons,
            (std::vector<std::string>{
                "Procedural / script cosmetic filter (#?#) is not supported",
                "Scriptlet injection is not supported", "Unsupported option $csp",
                "Unsupported option $redirect", "Entity / wildcard domains are not supported",
                "Cosmetic exception (#@#) can't target a single selector in WebKit"}));
}

TEST(StarterList, AgreesWithTheDemoPage) {
  const std::string page = "https://" + std::string(Starter::Hosts::demo) + "/";
  const std::string ads(Starter::Hosts::ads), adNetwork(Starter::Hosts::adNetwork);
  const std::string tagManager(Starter::Hosts::tagManager), tracker(Starter::Hosts::tracker);
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {ads + "/banner.png", "image", "||" + ads + "^"},
      {"ad." + adNetwork + "/pixel.gif", "image", "||" + adNetwork + "^"},
      {ads + "/allowed/ok.png", "image", "||" + ads + "^ but @@||" + ads + "/allowed/$image"},
      {"www." + tagManager + "/gtag/js?id=G-DEMO", "script", "||" + tagManager + "^$script"},
      {tracker + "/t.js", "script", "||" + tracker + "^$image,script"},
      {tracker + "/t.css", "style-sheet", "-"},
  };
  const Engine engine(compiled().rules);
  for (const auto& [url, type, verdict] : cases) {
    EXPECT_EQ(test::verdictText(engine.evaluate("https://" + url, page, type)),
              verdict + " (third-party)")
        << url;
  }
}

}  // namespace
}  // namespace tamsel
