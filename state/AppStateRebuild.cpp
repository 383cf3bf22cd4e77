// What AppState makes of the lists: a rebuild, from its first step to its last.

#include <unicode/regex.h>

#include <charconv>
#include <string_view>
#include <utility>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleDocument.h"
#include "platform/mainloop/Awaiting.h"
#include "state/AppState.h"
#include "state/StarterList.h"

namespace tamsel {
namespace {

constexpr const char* ruleListIdentifier = "TamselRules";
constexpr const char* storeFolder = "RuleStore";
constexpr const char* customRulesName = "Custom rules";
constexpr const char* refusedReason = "Rejected by WebKit when compiling";
constexpr const char* compileFailure = "WebKit could not compile the rule list.";

// A list as a rebuild takes it: its own, so that it may change meanwhile.
struct Source {
  Uuid id;
  Text name;
  Text text;
};

ParseOutput parse(const std::vector<Source>& sources, const std::stop_token& stop) {
  if (stop.stop_requested()) return {};  // it waited for a worker so long
  std::vector<FilterCompiler::Input> inputs;
  inputs.reserve(sources.size());
  for (const Source& source : sources) inputs.push_back({source.id, source.name, source.text});
  return FilterCompiler::parse(inputs, AppState::ruleLimit);
}

std::map<Uuid, ListStats> count(const SourcedRules& rules,
                                const std::map<Uuid, std::size_t>& skippedCounts) {
  std::map<Uuid, ListStats> stats;
  // Neighbours mostly are of one list.
  const Uuid* last = nullptr;
  ListStats* of = nullptr;
  for (const SourcedRule& rule : rules) {
    if (last == nullptr || *last != rule.listID) of = &stats[rule.listID];
    last = &rule.listID;
    ++countOf(*of, rule.kind);
  }
  for (const auto& [id, skipped] : skippedCounts) stats[id].skipped = skipped;
  return stats;
}

struct Encoded {
  SourcedRules rules;
  std::shared_ptr<const ByteBuffer> document;
};

// What WebKit is given.
Encoded encode(SourcedRules rules) {
  auto document =
      std::make_shared<const ByteBuffer>(RuleDocument::encode(rules, DocumentForm::hardened));
  return {std::move(rules), std::move(document)};
}

struct Shortened {
  SourcedRules rules;
  SkippedRule removed;
};

Shortened without(SourcedRules rules, std::size_t index) {
  const auto place = rules.begin() + static_cast<std::ptrdiff_t>(index);
  SkippedRule removed{Uuid::random(), place->source, refusedReason, place->listID, place->listName};
  rules.erase(place);
  return {std::move(rules), std::move(removed)};
}

struct Counted {
  std::map<Uuid, ListStats> stats;
  std::size_t total = 0;
  // Plain, for export.
  std::shared_ptr<const ByteBuffer> document;
  std::shared_ptr<const Engine> engine;
};

Counted countAndMatch(SourcedRules rules, const std::map<Uuid, std::size_t>& skippedCounts) {
  Counted counted{count(rules, skippedCounts), rules.size(), nullptr, nullptr};
  counted.document = std::make_shared<const ByteBuffer>(RuleDocument::encode(rules));
  counted.engine = std::make_shared<const Engine>(std::move(rules), DocumentForm::hardened);
  return counted;
}

// What it owns is freed on a worker, where the time that takes is nobody's.
template <typename T>
struct FreedOnWorker {
  FreedOnWorker() = default;
  FreedOnWorker(const FreedOnWorker&) = delete;
  FreedOnWorker& operator=(const FreedOnWorker&) = delete;
  ~FreedOnWorker() { freeOnWorker(std::move(value)); }

  T value;
};

}  // namespace

// A rebuild's own state: what it goes on working on while the next one may start.
struct AppState::Rebuild {
  CompileQueue::Turn turn;
  FreedOnWorker<SourcedRules> rules;
  FreedOnWorker<std::vector<SkippedRule>> skipped;
  std::map<Uuid, std::size_t> skippedCounts;
  // Hardened; as long as it is being compiled.
  std::shared_ptr<const ByteBuffer> document;
  std::shared_ptr<const RuleList> compiled;
  bool failed = false;
  Counted result;
};

std::shared_ptr<const ByteBuffer> AppState::emptyDocument() {
  return std::make_shared<const ByteBuffer>("[]");
}

void AppState::rebuild() {
  tasks_.add(performRebuild(compileQueue_.newTurn()));
}

Task<void> AppState::performRebuild(CompileQueue::Turn turn) {
  isCompiling = true;
  compileError = std::nullopt;
  std::exception_ptr failure;
  try {
    std::vector<Source> sources;
    for (const FilterList& list : *lists) {
      if (list.enabled) sources.push_back({list.id, list.name, list.text});
    }
    sources.push_back({Starter::customID, customRulesName, *customRules});

    auto parsing = detached(
        [sources = std::move(sources), stop = turn.stopToken()] { return parse(sources, stop); });
    ParseOutput parsed = co_await parsing;
    Rebuild rebuild;
    rebuild.turn = turn;
    rebuild.rules.value = std::move(parsed.rules);
    rebuild.skipped.value = std::move(parsed.skipped);
    rebuild.skippedCounts = std::move(parsed.skippedCounts);
    if (turn.isSuperseded()) co_return;
    truncated = parsed.truncated;

    if (!rebuild.rules.value.empty()) {
      auto compiling = compile(rebuild);
      co_await compiling;
      freeOnWorker(std::move(rebuild.document));
      if (turn.isSuperseded()) co_return;
    }

    auto matching = detached([rules = std::move(rebuild.rules.value),
                              counts = std::move(rebuild.skippedCounts)]() mutable {
      return countAndMatch(std::move(rules), counts);
    });
    rebuild.result = co_await matching;
    if (turn.isSuperseded()) co_return;
    publish(rebuild);
    co_return;
  } catch (...) {
    failure = std::current_exception();
  }
  if (!turn.isSuperseded()) publishFailure(Uncaught::sentence(failure));
}

Task<void> AppState::compile(Rebuild& rebuild) {
  // As long as WebKit refuses a certain rule, it is tried again without that one.
  for (int attempt = 0;; ++attempt) {
    auto encoding = detached(
        [rules = std::move(rebuild.rules.value)]() mutable { return encode(std::move(rules)); });
    Encoded encoded = co_await encoding;
    rebuild.rules.value = std::move(encoded.rules);
    rebuild.document = std::move(encoded.document);
    if (rebuild.turn.isSuperseded()) co_return;

    auto compiling = answerOf<CompileQueue::Answer>([this, &rebuild](auto completion) {
      compileQueue_.compile(rebuild.turn,
                            {.document = {rebuild.document->view(), rebuild.document},
                             .identifier = ruleListIdentifier,
                             .folder = platform_.supportDir + "/" + storeFolder},
                            std::move(completion));
    });
    CompileQueue::Answer answer = co_await compiling;
    if (std::holds_alternative<CompileQueue::Superseded>(answer)) co_return;
    if (auto* list = std::get_if<std::shared_ptr<const RuleList>>(&answer)) {
      rebuild.compiled = std::move(*list);
      rebuild.failed = rebuild.compiled == nullptr;
      if (rebuild.failed) compileError = compileFailure;
      co_return;
    }
    const auto& error = std::get<RuleListStore::Error>(answer);
    const std::optional<std::size_t> index =
        error.ruleIndex ? error.ruleIndex : badRuleIndex(error.message + " " + error.detail);
    if (!index || *index >= rebuild.rules.value.size()) {
      compileError = error.message;
      rebuild.failed = true;
      co_return;
    }

    auto shortening = detached([rules = std::move(rebuild.rules.value), index = *index]() mutable {
      return without(std::move(rules), index);
    });
    Shortened shortened = co_await shortening;
    rebuild.rules.value = std::move(shortened.rules);
    ++rebuild.skippedCounts[shortened.removed.listID];
    rebuild.skipped.value.push_back(std::move(shortened.removed));
    if (attempt + 1 == compileAttempts) {
      compileError = compileFailure;
      rebuild.failed = true;
      co_return;
    }
  }
}

void AppState::publish(Rebuild& rebuild) {
  std::shared_ptr<const ByteBuffer> document =
      rebuild.failed ? emptyDocument() : std::move(rebuild.result.document);
  freeOnWorker(std::exchange(engine_, std::move(rebuild.result.engine)));
  freeOnWorker(std::exchange(exportData_, std::move(document)));
  freeOnWorker(skipped.exchange(std::move(rebuild.skipped.value)));
  stats = std::move(rebuild.result.stats);
  totalRules = rebuild.result.total;

  platform_.browser->setRuleList(rebuild.failed ? nullptr : rebuild.compiled);
  isCompiling = false;
  statusMessage = rebuild.failed ? "Compile failed."
                                 : "Compiled " + std::to_string(rebuild.result.total) + " rules.";
}

void AppState::publishFailure(const std::string& sentence) {
  compileError = sentence;
  isCompiling = false;
  statusMessage = "Compile failed.";
}

std::optional<std::size_t> AppState::badRuleIndex(std::string_view message) {
  UErrorCode status = U_ZERO_ERROR;
  icu::RegexMatcher matcher(icu::UnicodeString::fromUTF8("(?:index|rule)\\D{0,20}(\\d+)"),
                            UREGEX_CASE_INSENSITIVE, status);
  const icu::UnicodeString text = icu::UnicodeString::fromUTF8(
      icu::StringPiece(message.data(), static_cast<std::int32_t>(message.size())));
  matcher.reset(text);
  if (U_FAILURE(status) || matcher.find() == 0) return std::nullopt;
  std::string digits;
  matcher.group(1, status).toUTF8String(digits);
  std::size_t index = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), index);
  const bool isWhole = read.ec == std::errc() && read.ptr == digits.data() + digits.size();
  return isWhole && U_SUCCESS(status) ? std::optional(index) : std::nullopt;
}

}  // namespace tamsel
