#include "tools/tamselc/MatchCommand.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <sstream>
#include <string_view>
#include <variant>

#include "compiler/FilterCompiler.h"
#include "engine/Engine.h"
#include "platform/files/Files.h"
#include "tools/tamselc/FilterLists.h"
#include "tools/tamselc/Output.h"

namespace tamsel::tamselc {
namespace {

struct Request {
  std::string_view url;
  std::optional<std::string_view> page;
  std::string_view type;
};

bool isResourceType(std::string_view type) {
  return std::find(resourceTypeNames.begin(), resourceTypeNames.end(), type) !=
         resourceTypeNames.end();
}

std::string unknownType(std::string_view type) {
  std::string message = "\"" + printable(type) + "\" is no resource type; there are";
  for (std::string_view name : resourceTypeNames) {
    message += name == resourceTypeNames.back() ? " and " : " ";
    message += name;
    if (name != resourceTypeNames.back()) message += ',';
  }
  return message + ".";
}

// A line of a request file, or what is wrong with it.
std::variant<Request, std::string> readRequest(std::string_view line) {
  std::array<std::string_view, 3> fields;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const std::size_t tab = line.find('\t');
    const bool last = i + 1 == fields.size();
    if (last != (tab == std::string_view::npos)) {
      return "expected a URL, a page URL and a resource type, separated by tabs.";
    }
    fields[i] = line.substr(0, tab);
    if (!last) line.remove_prefix(tab + 1);
  }
  const auto [url, page, type] = fields;
  if (url.empty()) return "the URL is empty.";
  if (!isResourceType(type)) return unknownType(type);
  return Request{url, page.empty() ? std::nullopt : std::optional(page), type};
}

Engine::Verdict evaluate(const Engine& engine, const Request& request) {
  return engine.evaluate(request.url, request.page, request.type);
}

int explain(const Engine& engine, const Request& request, DocumentForm form) {
  const auto ruleLine = [form](std::string_view title, const SourcedRule& rule) {
    const std::string plain = rule.rule.trigger.urlFilter.string();
    const std::string filter = form == DocumentForm::plain
                                   ? plain
                                   : Hardening::urlFilter(plain, rule.kind == RuleKind::exception);
    return std::string(title) + printable(rule.source) + "\n             from " +
           printable(rule.listName) + ", url-filter " + printable(filter) + "\n";
  };
  const Engine::Verdict verdict = evaluate(engine, request);
  const std::string subject = printable(request.url) + " (" + std::string(request.type) + ", " +
                              (verdict.thirdParty ? "third-party" : "first-party") + ")\n";
  const bool blocked = verdict.block && !verdict.exception;
  std::string text;
  if (!verdict.block) {
    text = "Allowed, no network rule matches: " + subject;
  } else if (blocked) {
    text = "Blocked: " + subject + ruleLine("  Rule:      ", *verdict.block);
  } else {
    text = "Allowed by an exception: " + subject + ruleLine("  Exception: ", *verdict.exception) +
           ruleLine("  Overrules: ", *verdict.block);
  }
  writeOutput(text);
  return blocked ? 1 : 0;
}

// The source of a rule as a field: a hosts-file line may have tabs of its own.
std::string field(const std::optional<SourcedRule>& rule) {
  if (!rule) return {};
  std::string source = rule->source.string();
  std::replace(source.begin(), source.end(), '\t', ' ');
  return source;
}

// Answers every request of a file; returns the exit code.
int answer(const Engine& engine, std::string_view requests) {
  constexpr std::size_t outputStep = std::size_t{1} << 16;
  std::string output;
  int exitCode = 0;
  for (std::size_t number = 1; !requests.empty(); ++number) {
    const std::size_t end = std::min(requests.find('\n'), requests.size());
    std::string_view line = requests.substr(0, end);
    requests.remove_prefix(std::min(end + 1, requests.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty()) continue;

    const auto parsed = readRequest(line);
    if (const auto* problem = std::get_if<std::string>(&parsed)) {
      writeMessage("tamselc: line " + std::to_string(number) + ": " + *problem + "\n");
      exitCode = 2;
      continue;
    }
    const Request& request = std::get<Request>(parsed);
    const Engine::Verdict verdict = evaluate(engine, request);
    output += request.url;
    output += '\t';
    output += field(verdict.block);
    output += '\t';
    output += field(verdict.exception);
    output += verdict.thirdParty ? "\tthird\n" : "\tfirst\n";
    if (output.size() >= outputStep) {
      writeOutput(output);
      output.clear();
    }
  }
  writeOutput(output);
  return exitCode;
}

}  // namespace

int MatchCommand::run() const {
  if (requests == Files::standardInput &&
      std::count(lists.begin(), lists.end(), Files::standardInput) != 0) {
    throw Files::FileError("Standard input (-) can be read only once.");
  }
  if (!requests && !isResourceType(type)) throw Files::FileError(unknownType(type));
  const std::string file = requests ? Files::read(*requests) : std::string();
  const Engine engine(FilterCompiler::parse(FilterLists(lists).inputs()).rules, form);
  if (requests) return answer(engine, file);
  const bool hasPage = page && !page->empty();
  return explain(
      engine, {*url, hasPage ? std::optional<std::string_view>(*page) : std::nullopt, type}, form);
}

}  // namespace tamsel::tamselc
