#include "tools/tamselc/CheckCommand.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <thread>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleCombination.h"
#include "compiler/RuleDocument.h"
#include "platform/files/Files.h"
#include "platform/rulestore/RuleListCompiler.h"
#include "tools/tamselc/FilterLists.h"
#include "tools/tamselc/Interrupt.h"
#include "tools/tamselc/Output.h"

namespace tamsel::tamselc {
namespace {

using Clock = std::chrono::steady_clock;

// WebKit finds nearly all refused rules at once. What is left comes to light one by one, and a list
// that has more of it than this is not worth the time.
constexpr int maxRounds = 40;

std::string seconds(Clock::duration time) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(2) << std::chrono::duration<double>(time).count();
  return text.str();
}

// Says on a terminal what is going on.
class Progress {
 public:
  explicit Progress(std::size_t rules) : rules_(rules) {
    if (::isatty(STDERR_FILENO) == 0) return;
    shower_ = std::jthread([this](const std::stop_token& stop) { show(stop); });
  }
  ~Progress() {
    if (!shower_.joinable()) return;
    shower_.request_stop();
    shower_.join();
    writeMessage("\r\x1b[K");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void set(std::size_t done, std::size_t all) {
    const std::lock_guard lock(mutex_);
    done_ = done;
    all_ = all;
  }

 private:
  void show(const std::stop_token& stop) {
    constexpr auto step = std::chrono::milliseconds(100);
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, stop, step, [&stop] { return stop.stop_requested(); })) {
      if (stop.stop_requested()) return;
      std::string line = "\rWebKit reads " + std::to_string(rules_) + " rules";
      if (all_ > 1) {
        line += ", " + std::to_string(done_) + " of " + std::to_string(all_) + " parts done";
      }
      writeMessage(line + ", " + seconds(Clock::now() - start_) + " s\x1b[K");
    }
  }

  Clock::time_point start_ = Clock::now();
  std::size_t rules_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::size_t done_ = 0;
  std::size_t all_ = 0;
  std::jthread shower_;
};

// A folder for when there is no other, gone when this is.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::error_code error;
    std::filesystem::path parent = std::filesystem::temp_directory_path(error);
    if (error) parent = "/tmp";
    std::string path = parent / "tamselc-XXXXXX";
    if (::mkdtemp(path.data()) != nullptr) path_ = path;
  }
  ~TemporaryFolder() {
    std::error_code error;
    if (!path_.empty()) std::filesystem::remove_all(path_, error);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

// What was compiled for this command is kept under.
constexpr const char* identifier = "check";

struct Refusal {
  SourcedRule rule;
  std::string reason;
};

// Takes the refused rules, whose indexes ascend, out of `rules`.
void remove(const std::vector<RefusedRule>& refused, SourcedRules& rules,
            std::vector<Refusal>& removed) {
  auto next = refused.begin();
  std::size_t kept = 0;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (next != refused.end() && next->index == i) {
      removed.push_back({std::move(rules[i]), next->reason});
      ++next;
    } else if (kept++ != i) {
      rules[kept - 1] = std::move(rules[i]);
    }
  }
  rules.resize(kept);
}

// The source rules of refused combined rules, in order, each once.
std::vector<RefusedRule> sourcesOf(const std::vector<RefusedRule>& refused,
                                   const RuleCombination& combination) {
  std::vector<RefusedRule> sources;
  for (const RefusedRule& rule : refused) {
    for (const std::uint32_t source : combination.sourcesOf(rule.index)) {
      sources.push_back({source, rule.reason});
    }
  }
  const auto byIndex = [](const RefusedRule& a, const RefusedRule& b) { return a.index < b.index; };
  std::stable_sort(sources.begin(), sources.end(), byIndex);
  const auto same = [](const RefusedRule& a, const RefusedRule& b) { return a.index == b.index; };
  sources.erase(std::unique(sources.begin(), sources.end(), same), sources.end());
  return sources;
}

// Leaves in `rules` what WebKit takes, and returns the others. Throws RuleListCompiler::Failure and
// RuleListCompiler::Stopped.
std::vector<Refusal> askWebKit(SourcedRules& rules, bool combine, DocumentForm form,
                               const std::stop_token& stop) {
  std::string folder = RuleListCompiler::userFolder();
  std::optional<TemporaryFolder> temporary;
  if (!StoreFolder::isUsable(folder, identifier, stop)) {
    temporary.emplace();
    // Without one either, the first says what is wrong.
    if (!temporary->path().empty()) folder = temporary->path();
  }
  const RuleListCompiler compiler({.defaultFolder = folder});
  Progress progress(rules.size());
  std::vector<Refusal> refusals;
  for (int round = 0; !rules.empty(); ++round) {
    std::optional<RuleCombination> combination;
    if (combine) combination = RuleCombination::of(rules);
    const ByteBuffer document = combination ? RuleDocument::encode(combination->rules, form)
                                            : RuleDocument::encode(rules, form);
    const RuleListCompiler::Outcome outcome = compiler.compile(
        {.document = document,
         .identifier = identifier,
         .folder = folder,
         .stop = stop,
         .findAll = true,
         .progress = [&](std::size_t done, std::size_t all) { progress.set(done, all); }});
    if (outcome.compiled) {
      outcome.compiled->keep();
      break;
    }
    if (round == maxRounds) {
      throw RuleListCompiler::Failure(
          "WebKit refuses the list again and again, each time for another rule.", {});
    }
    remove(combination ? sourcesOf(outcome.refused, *combination) : outcome.refused, rules,
           refusals);
  }
  return refusals;
}

std::string asJson(std::size_t count, const std::vector<Refusal>& refusals, Clock::duration time) {
  using Json = nlohmann::ordered_json;
  Json report = {{"rules", count},
                 {"accepted", count - refusals.size()},
                 {"seconds", std::chrono::duration<double>(time).count()},
                 {"refused", Json::array()}};
  for (const Refusal& refusal : refusals) {
    report["refused"].push_back({{"line", refusal.rule.source.view()},
                                 {"list", refusal.rule.listName.view()},
                                 {"reason", refusal.reason}});
  }
  constexpr int indent = 2;
  return report.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string asText(std::size_t count, const std::vector<Refusal>& refusals, Clock::duration time) {
  std::string text;
  for (const Refusal& refusal : refusals) {
    text += "Refused: " + printable(refusal.rule.source) +
            "\n  List:   " + printable(refusal.rule.listName) +
            "\n  Reason: " + printable(refusal.reason) + "\n";
  }
  if (!refusals.empty()) text += '\n';
  text += "Time: " + seconds(time) + " s.\n";
  if (refusals.empty()) return text + "WebKit takes all " + std::to_string(count) + " rules.\n";
  return text + "WebKit refuses " + std::to_string(refusals.size()) + " of " +
         std::to_string(count) + " rules.\n";
}

}  // namespace

int CheckCommand::run() const {
  const Clock::time_point start = Clock::now();
  SourcedRules rules;
  {
    const FilterLists inputs(lists);
    rules = FilterCompiler::parse(inputs.inputs()).rules;
  }
  const bool isTooLarge = (combine ? RuleCombination::of(rules).rules.size() : rules.size()) >
                          RuleListCompiler::maxRules;
  if (isTooLarge) {
    writeMessage("Only the first " + std::to_string(RuleListCompiler::maxRules) + " of " +
                 std::to_string(rules.size()) + " rules are handed over: WebKit takes no more.\n");
    rules.resize(RuleListCompiler::maxRules);
  }
  const std::size_t count = rules.size();
  std::vector<Refusal> refusals;
  {
    Interrupt interrupt;
    try {
      refusals = askWebKit(rules, combine, form, interrupt.token());
    } catch (const RuleListCompiler::Stopped&) {
      interrupt.finish();
    }
  }
  const Clock::duration time = Clock::now() - start;
  writeOutput(json ? asJson(count, refusals, time) : asText(count, refusals, time));
  return refusals.empty() && !isTooLarge ? 0 : 1;
}

}  // namespace tamsel::tamselc
