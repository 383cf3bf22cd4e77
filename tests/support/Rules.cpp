#include "tests/support/Rules.h"

#include "compiler/FilterCompiler.h"
#include "tests/support/ExactCopy.h"

namespace tamsel::test {

SourcedRules compile(std::string_view filters) {
  const ExactCopy text(filters);
  const FilterCompiler::Input input{Uuid{}, "Test list", text};
  return FilterCompiler::parse({&input, 1}).rules;
}

SourcedRule handMade(RuleKind kind, WKRule::Trigger trigger) {
  const Text source = trigger.urlFilter;
  const char* action = kind == RuleKind::block ? "block" : "ignore-previous-rules";
  return {{std::move(trigger), {action, {}}}, kind, source, Uuid{}, "Test list"};
}

std::string verdictText(const Engine::Verdict& verdict) {
  std::string text = verdict.block ? verdict.block->source.string() : "-";
  if (verdict.exception) text += " but " + verdict.exception->source.string();
  if (verdict.thirdParty) text += " (third-party)";
  return text;
}

}  // namespace tamsel::test
