// Any bytes as a filter list: no crash, every promise about the result kept, and a document that
// reads back as the same rules.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleDocument.h"

using namespace tamsel;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Two lists, so that a rule can come again in another.
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const FilterCompiler::Input lists[] = {{Uuid::random(), "first", text.substr(0, size / 2)},
                                         {Uuid::random(), "second", text.substr(size / 2)}};
  const ParseOutput output = FilterCompiler::parse(lists);

  std::set<std::string> keys;
  RuleKind last = RuleKind::block;
  for (const SourcedRule& rule : output.rules) {
    require(rule.kind >= last);
    last = rule.kind;
    require(!rule.source.empty());
    require(
        keys.insert(std::string(rawValue(rule.kind)) + "|" + FilterCompiler::describe(rule.rule))
            .second);
  }
  std::size_t counted = 0;
  for (const auto& [id, count] : output.skippedCounts) counted += count;
  require(output.skipped.size() <= counted);

  const ByteBuffer document = RuleDocument::encode(output.rules);
  const std::vector<WKRule> decoded = RuleDocument::decode(document);
  require(decoded.size() == output.rules.size());
  for (std::size_t i = 0; i < decoded.size(); ++i) require(decoded[i] == output.rules[i].rule);

  try {
    (void)RuleDocument::decode(text);
  } catch (const RuleDocument::DecodeError&) {
    return 0;
  }
  return 0;
}
