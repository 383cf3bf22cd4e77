// A filter list and requests: the engine must answer as a plain scan over all rules does. The
// first line of the input is a URL, the second a page, the rest the list.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "compiler/FilterCompiler.h"
#include "engine/Engine.h"
#include "tests/support/PlainScan.h"

using namespace tamsel;

namespace {

std::string_view takeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

// Expressions in which a plain scan, which has no limits, would spend its time.
bool mayExplode(const ParseOutput& output) {
  for (const SourcedRule& rule : output.rules) {
    const std::string_view filter = rule.rule.trigger.urlFilter;
    if (filter.size() > 200) return true;
    if (rule.source.view().find('/') == 0 && filter.find('(') != std::string_view::npos)
      return true;
    std::size_t repeats = 0;
    for (char c : filter) repeats += c == '*' || c == '+' || c == '?';
    if (repeats > 6) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t longest = 2000;
  if (size > longest) return 0;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string_view url = takeLine(text);
  const std::string_view page = takeLine(text);
  const FilterCompiler::Input list{Uuid::random(), "list", text};
  const ParseOutput output = FilterCompiler::parse({&list, 1});
  if (mayExplode(output)) return 0;

  const auto form = size % 2 == 0 ? DocumentForm::plain : DocumentForm::hardened;
  const Engine engine(SourcedRules(output.rules), form);
  test::PlainScan plain(output.rules, form);
  for (std::string_view type : {"image", "script", "document"}) {
    for (const auto& from :
         {std::optional<std::string_view>(page), std::optional<std::string_view>()}) {
      if (engine.evaluate(url, from, type) != plain.evaluate(url, from, type)) {
        std::fprintf(stderr, "The engine and the plain scan disagree.\n");
        std::abort();
      }
    }
  }
  return 0;
}
