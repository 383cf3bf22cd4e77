#include "tools/tamselc/CompileCommand.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "compiler/FilterCompiler.h"
#include "platform/files/Files.h"
#include "tools/tamselc/FilterLists.h"
#include "tools/tamselc/Output.h"

namespace tamsel::tamselc {
namespace {

// The most rules that WebKit's store accepts in one document.
constexpr std::size_t webKitRuleLimit = 150000;

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
                std::chrono::duration<double> time, bool reported) {
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
  if (rules > webKitRuleLimit) {
    table << "WebKit takes no more than " << webKitRuleLimit
          << " rules in one document; this one has " << rules - webKitRuleLimit << " too many.\n";
  }
  if (total.skipped != 0 && !reported) {
    table << total.skipped
          << (total.skipped == 1 ? " line was skipped; --report FILE tells why.\n"
                                 : " lines were skipped; --report FILE tells why.\n");
  }
  writeMessage(table.str());
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

}  // namespace

int CompileCommand::run() const {
  const auto start = std::chrono::steady_clock::now();
  const bool toStandardOutput = output.empty() || output == standardOutput;
  if (toStandardOutput && report == standardOutput) {
    throw Files::FileError("Standard output (-) can take only one of the document and the report.");
  }
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
  if (report == standardOutput) {
    writeOutput(makeReport(perList, compiled));
  } else if (!report.empty()) {
    Files::replace(report, makeReport(perList, compiled));
  }
  printTable(perList, compiled.ruleCount, std::chrono::steady_clock::now() - start,
             !report.empty());
  return 0;
}

}  // namespace tamsel::tamselc
