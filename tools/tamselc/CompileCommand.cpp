#include "tools/tamselc/CompileCommand.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleCombination.h"
#include "compiler/RuleDocument.h"
#include "platform/files/Files.h"
#include "tools/tamselc/FilterLists.h"
#include "tools/tamselc/Output.h"

namespace tamsel::tamselc {
namespace {

constexpr std::string_view standardOutput = "-";

struct CompiledList {
  std::string name;
  ListStats stats;
};

std::vector<CompiledList> countPerList(const FilterLists& lists,
                                       const FilterCompiler::DocumentReport& report) {
  std::vector<CompiledList> compiled;
  for (const FilterCompiler::Input& input : lists.inputs()) {
    const auto stats = report.stats.find(input.id);
    compiled.push_back(
        {input.name.string(), stats == report.stats.end() ? ListStats() : stats->second});
  }
  return compiled;
}

ListStats sum(const std::vector<CompiledList>& lists) {
  ListStats total;
  for (const CompiledList& list : lists) {
    total.block += list.stats.block;
    total.exception += list.stats.exception;
    total.cosmetic += list.stats.cosmetic;
    total.skipped += list.stats.skipped;
  }
  return total;
}

// The width that a text takes on a terminal, near enough: one column for each scalar value.
std::size_t columns(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void printTable(const std::vector<CompiledList>& lists, std::size_t rules,
                std::chrono::duration<double> time, bool reported, const std::string& remark) {
  const ListStats total = sum(lists);
  std::size_t nameWidth = columns("Total");
  for (const CompiledList& list : lists) {
    nameWidth = std::max(nameWidth, columns(printable(list.name)));
  }
  std::ostringstream table;
  const auto row = [&](const std::string& name, const std::array<std::string, 4>& cells) {
    table << name << std::string(nameWidth - columns(name), ' ');
    for (const std::string& cell : cells) table << "  " << std::setw(10) << cell;
    table << '\n';
  };
  const auto countsRow = [&](const std::string& name, const ListStats& stats) {
    row(name, {std::to_string(stats.block), std::to_string(stats.exception),
               std::to_string(stats.cosmetic), std::to_string(stats.skipped)});
  };
  row("List", {"Block", "Exceptions", "Hide", "Skipped"});
  for (const CompiledList& list : lists) countsRow(printable(list.name), list.stats);
  if (lists.size() > 1) countsRow("Total", total);

  table << '\n'
        << rules << (rules == 1 ? " rule in " : " rules in ") << std::fixed << std::setprecision(2)
        << time.count() << " s.\n";
  table << remark;
  if (total.skipped != 0 && !reported) {
    table << total.skipped
          << (total.skipped == 1 ? " line was skipped; --report FILE tells why.\n"
                                 : " lines were skipped; --report FILE tells why.\n");
  }
  writeMessage(table.str());
}

std::string tooMany(std::size_t rules, std::size_t limit) {
  return "WebKit takes no more than " + std::to_string(limit) +
         " rules in one document; this one has " + std::to_string(rules - limit) +
         " too many. --combine makes fewer of them, and --split writes several documents.\n";
}

// "rules-1.json" for "rules.json".
std::string numbered(const std::string& path, std::size_t number) {
  const std::filesystem::path file(path);
  return file.parent_path() /
         (file.stem().string() + "-" + std::to_string(number) + file.extension().string());
}

// The rules of a document of a combination, encoded.
ByteBuffer encoded(const RuleCombination& combination, const RuleCombination::Document& document,
                   DocumentForm form) {
  std::vector<WKRule> rules;
  for (const auto& [first, last] : document) {
    rules.insert(rules.end(), combination.rules.begin() + static_cast<std::ptrdiff_t>(first),
                 combination.rules.begin() + static_cast<std::ptrdiff_t>(last));
  }
  return RuleDocument::encode(rules, form);
}

std::string makeReport(const std::vector<CompiledList>& lists,
                       const FilterCompiler::DocumentReport& compiled) {
  using Json = nlohmann::ordered_json;
  Json report;
  report["rules"] = compiled.ruleCount;
  report["lists"] = Json::array();
  for (const CompiledList& list : lists) {
    report["lists"].push_back({{"name", list.name},
                               {"block", list.stats.block},
                               {"exception", list.stats.exception},
                               {"cosmetic", list.stats.cosmetic},
                               {"skipped", list.stats.skipped}});
  }
  report["skipped"] = Json::array();
  for (const SkippedRule& skipped : compiled.skipped) {
    report["skipped"].push_back({{"line", skipped.line.view()},
                                 {"reason", skipped.reason.view()},
                                 {"list", skipped.listName.view()}});
  }
  constexpr int indent = 2;
  return report.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

void writeReport(const std::string& file, const std::vector<CompiledList>& lists,
                 const FilterCompiler::DocumentReport& compiled) {
  if (file.empty()) return;
  const std::string text = makeReport(lists, compiled);
  if (file == standardOutput) {
    writeOutput(text);
  } else {
    Files::replace(file, text);
  }
}

}  // namespace

int CompileCommand::run() const {
  const auto start = std::chrono::steady_clock::now();
  const bool toStandardOutput = output.empty() || output == standardOutput;
  if (toStandardOutput && report == standardOutput) {
    throw Files::FileError("Standard output (-) can take only one of the document and the report.");
  }
  if (combine || split) return runCombined();
  const FilterLists inputs(lists);
  FilterCompiler::DocumentReport compiled;
  const auto writeDocument = [&](const Files::Sink& sink) {
    compiled = FilterCompiler::compileDocument(inputs.inputs(), sink, form);
  };
  if (toStandardOutput) {
    writeDocument(writeOutput);
  } else {
    Files::replace(output, writeDocument);
  }
  const std::vector<CompiledList> perList = countPerList(inputs, compiled);
  writeReport(report, perList, compiled);
  const bool isTooLarge = compiled.ruleCount > limit;
  printTable(perList, compiled.ruleCount, std::chrono::steady_clock::now() - start, !report.empty(),
             isTooLarge ? tooMany(compiled.ruleCount, limit) : "");
  return isTooLarge ? 1 : 0;
}

int CompileCommand::runCombined() const {
  const auto start = std::chrono::steady_clock::now();
  const bool toStandardOutput = output.empty() || output == standardOutput;
  if (split && toStandardOutput) {
    throw Files::FileError("--split writes several documents: name a file for them with -o.");
  }
  const FilterLists inputs(lists);
  ParseOutput parsed = FilterCompiler::parse(inputs.inputs());
  const RuleCombination combination = RuleCombination::of(parsed.rules);
  const std::size_t ruleCount = combination.rules.size();

  std::vector<RuleCombination::Document> documents;
  std::string remark = "Combined they are " + std::to_string(ruleCount);
  if (split) {
    auto several = combination.split(limit);
    if (!several) throw Files::FileError("There are more exceptions than a document can have.");
    documents = std::move(*several);
    remark += ", in " + std::to_string(documents.size()) + " documents.\n";
  } else if (ruleCount > limit) {
    remark += ", more than the " + std::to_string(limit) +
              " that WebKit takes in one document; --split writes several.\n";
  } else {
    documents = {{{0, ruleCount}}};
    remark += ".\n";
  }
  for (std::size_t i = 0; i < documents.size(); ++i) {
    const ByteBuffer document = encoded(combination, documents[i], form);
    if (toStandardOutput) {
      writeOutput(document);
    } else {
      Files::replace(split ? numbered(output, i + 1) : output, document.view());
    }
  }

  FilterCompiler::DocumentReport compiled{ruleCount, std::move(parsed.skipped), {}};
  for (const SourcedRule& rule : parsed.rules) ++countOf(compiled.stats[rule.listID], rule.kind);
  for (const auto& [id, count] : parsed.skippedCounts) compiled.stats[id].skipped = count;
  const std::vector<CompiledList> perList = countPerList(inputs, compiled);
  writeReport(report, perList, compiled);
  printTable(perList, parsed.rules.size(), std::chrono::steady_clock::now() - start,
             !report.empty(), remark);
  return ruleCount > limit && !split ? 1 : 0;
}

}  // namespace tamsel::tamselc
