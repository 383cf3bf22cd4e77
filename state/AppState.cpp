#include "state/AppState.h"

#include <glib.h>
#include <unicode/regex.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <utility>

#include "compiler/FilterCompiler.h"
#include "compiler/RuleDocument.h"
#include "compiler/Unicode.h"
#include "platform/files/Files.h"
#include "platform/mainloop/Awaiting.h"
#include "state/Persisted.h"
#include "state/StarterList.h"

namespace tamsel {
namespace {

namespace fs = std::filesystem;

constexpr const char* ruleListIdentifier = "TamselRules";
constexpr std::string_view storeFolder = "RuleStore";
constexpr const char* customRulesName = "Custom rules";
constexpr const char* refusedReason = "Rejected by WebKit when compiling";
constexpr const char* compileFailure = "WebKit could not compile the rule list.";

std::shared_ptr<const ByteBuffer> emptyDocument() {
  return std::make_shared<const ByteBuffer>("[]");
}

FilterList starterList() {
  return {.id = Starter::id,
          .name = std::string(Starter::name),
          .text = Starter::text,
          .isBuiltIn = true};
}

// A list as a rebuild takes it: its own, so that it may change meanwhile.
struct Source {
  Uuid id;
  Text name;
  Text text;
};

ParseOutput parse(const std::vector<Source>& sources) {
  std::vector<FilterCompiler::Input> inputs;
  inputs.reserve(sources.size());
  for (const Source& source : sources) inputs.push_back({source.id, source.name, source.text});
  return FilterCompiler::parse(inputs);
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
    switch (rule.kind) {
      case RuleKind::block:
        ++of->block;
        break;
      case RuleKind::exception:
        ++of->exception;
        break;
      case RuleKind::cosmetic:
        ++of->cosmetic;
        break;
    }
  }
  for (const auto& [id, skipped] : skippedCounts) stats[id].skipped = skipped;
  return stats;
}

struct Parsed {
  ParseOutput output;
  bool truncated;
};

Parsed parseUpToLimit(const std::vector<Source>& sources) {
  Parsed parsed{parse(sources), false};
  parsed.truncated = parsed.output.rules.size() > AppState::ruleLimit;
  if (parsed.truncated) parsed.output.rules.resize(AppState::ruleLimit);
  return parsed;
}

struct Encoded {
  SourcedRules rules;
  std::shared_ptr<const ByteBuffer> document;
};

Encoded encode(SourcedRules rules) {
  auto document = std::make_shared<const ByteBuffer>(RuleDocument::encode(rules));
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
  std::shared_ptr<const Engine> engine;
};

Counted countAndMatch(SourcedRules rules, const std::map<Uuid, std::size_t>& skippedCounts) {
  Counted counted{count(rules, skippedCounts), rules.size(), nullptr};
  counted.engine = std::make_shared<const Engine>(std::move(rules));
  return counted;
}

// What a save left behind that was killed in its last moment.
void removeLeftovers(const std::string& folder) {
  std::error_code error;
  std::vector<fs::path> leftovers;
  for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    if (entry->path().filename().string().starts_with(Files::temporaryPrefix)) {
      leftovers.push_back(entry->path());
    }
  }
  for (const fs::path& leftover : leftovers) fs::remove(leftover, error);
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

// What the store makes of the document; to be waited for.
auto compiled(RuleListStore& store, const std::string& supportDir,
              const std::shared_ptr<const ByteBuffer>& document) {
  RuleListStore::Request request{.document = {document->view(), document},
                                 .identifier = ruleListIdentifier,
                                 .folder = supportDir + "/" + std::string(storeFolder)};
  return answerOf<RuleListStore::Result>(
      [&store, request = std::move(request)](std::function<void(RuleListStore::Result)> answer) {
        store.compile(request, std::move(answer));
      });
}

}  // namespace

AppState::AppState(Platform platform)
    : platform_(std::move(platform)), exportData_(emptyDocument()) {
  std::error_code ignored;
  fs::create_directories(platform_.supportDir, ignored);
  platform_.browser->setApp(this);
  load();
  rebuild();
  platform_.browser->loadDemo();
}

AppState::~AppState() {
  platform_.browser->setApp(nullptr);
}

std::string AppState::userSupportDir() {
  return std::string(g_get_user_data_dir()) + "/Tamsel";
}

void AppState::load() {
  removeLeftovers(platform_.supportDir);
  std::error_code ignored;
  try {
    // Anything but a file could keep the start waiting.
    const std::string text =
        fs::is_regular_file(stateFile(), ignored) ? Files::read(stateFile()) : "";
    if (std::optional<Persisted> persisted = Persisted::decode(text)) {
      lists = std::move(persisted->lists);
      customRules = std::move(persisted->customRules);
      pausedSites = std::set(persisted->pausedSites.begin(), persisted->pausedSites.end());
    }
  } catch (const Files::FileError&) {
    // As on a first start.
  }
  const bool hasStarter = std::any_of(
      lists->begin(), lists->end(), [](const FilterList& list) { return list.id == Starter::id; });
  if (!hasStarter) lists.modify([](auto& all) { all.insert(all.begin(), starterList()); });
}

void AppState::save() const {
  const Persisted persisted{lists, customRules, {pausedSites->begin(), pausedSites->end()}};
  try {
    Files::replace(stateFile(), persisted.encode(), Files::Durability::onDisk);
  } catch (const Files::FileError&) {
    return;
  }
}

// A rebuild's own state: what it goes on working on while others may start.
struct AppState::Rebuild {
  FreedOnWorker<SourcedRules> rules;
  FreedOnWorker<std::vector<SkippedRule>> skipped;
  std::map<Uuid, std::size_t> skippedCounts;
  std::shared_ptr<const ByteBuffer> document = emptyDocument();
  std::shared_ptr<const RuleList> compiled;
  bool failed = false;
  Counted result;
};

void AppState::rebuild() {
  rebuildTask_.cancel();
  rebuildTask_ = tasks_.add(performRebuild());
}

Task<void> AppState::performRebuild() {
  isCompiling = true;
  compileError = std::nullopt;

  std::vector<Source> sources;
  for (const FilterList& list : *lists) {
    if (list.enabled) sources.push_back({list.id, list.name, list.text});
  }
  sources.push_back({Starter::customID, customRulesName, *customRules});

  auto parsing = detached([sources = std::move(sources)] { return parseUpToLimit(sources); });
  Parsed parsed = co_await parsing;
  Rebuild rebuild;
  rebuild.rules.value = std::move(parsed.output.rules);
  rebuild.skipped.value = std::move(parsed.output.skipped);
  rebuild.skippedCounts = std::move(parsed.output.skippedCounts);
  if (co_await IsCancelled()) co_return;
  truncated = parsed.truncated;

  if (!rebuild.rules.value.empty()) {
    // As long as WebKit refuses a certain rule, it is tried again without that one.
    for (int attempt = 0;; ++attempt) {
      auto encoding = detached(
          [rules = std::move(rebuild.rules.value)]() mutable { return encode(std::move(rules)); });
      Encoded encoded = co_await encoding;
      rebuild.rules.value = std::move(encoded.rules);
      rebuild.document = std::move(encoded.document);
      if (co_await IsCancelled()) co_return;

      auto compiling = compiled(platform_.ruleListStore, platform_.supportDir, rebuild.document);
      const RuleListStore::Result result = co_await compiling;
      const auto* error = std::get_if<RuleListStore::Error>(&result);
      if (error == nullptr) {
        rebuild.compiled = std::get<std::shared_ptr<const RuleList>>(result);
        rebuild.failed = rebuild.compiled == nullptr;
        if (rebuild.failed) compileError = compileFailure;
        break;
      }
      const auto index = badRuleIndex(error->message + " " + error->detail);
      if (!index || *index >= rebuild.rules.value.size()) {
        compileError = error->message;
        rebuild.failed = true;
        break;
      }

      auto shortening =
          detached([rules = std::move(rebuild.rules.value), index = *index]() mutable {
            return without(std::move(rules), index);
          });
      Shortened shortened = co_await shortening;
      rebuild.rules.value = std::move(shortened.rules);
      ++rebuild.skippedCounts[shortened.removed.listID];
      rebuild.skipped.value.push_back(std::move(shortened.removed));
      if (attempt + 1 == compileAttempts) {
        compileError = compileFailure;
        rebuild.failed = true;
        break;
      }
    }
  }

  auto matching = detached([rules = std::move(rebuild.rules.value),
                            counts = std::move(rebuild.skippedCounts)]() mutable {
    return countAndMatch(std::move(rules), counts);
  });
  rebuild.result = co_await matching;
  publish(rebuild);
}

void AppState::publish(Rebuild& rebuild) {
  freeOnWorker(std::exchange(engine_, std::move(rebuild.result.engine)));
  freeOnWorker(std::exchange(exportData_, rebuild.failed ? emptyDocument() : rebuild.document));
  freeOnWorker(skipped.exchange(std::move(rebuild.skipped.value)));
  stats = std::move(rebuild.result.stats);
  totalRules = rebuild.result.total;

  platform_.browser->setRuleList(rebuild.failed ? nullptr : rebuild.compiled);
  isCompiling = false;
  statusMessage = rebuild.failed ? "Compile failed."
                                 : "Compiled " + std::to_string(rebuild.result.total) + " rules.";
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
