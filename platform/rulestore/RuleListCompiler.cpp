#include "platform/rulestore/RuleListCompiler.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/files/Files.h"
#include "platform/rulestore/CompilerProcess.h"

namespace tamsel {
namespace {

namespace fs = std::filesystem;
using Clock = CompilerProcess::Clock;

// What WebKit says of a document whose rules all have selectors that it does not know.
constexpr std::string_view emptyDocument = "Empty extension.";
constexpr std::array<std::string_view, 2> writeErrors = {"Internal I/O error",
                                                         "Unspecified error during compile."};

// A text of elsewhere must not be taken for one that names a rule.
std::string withoutDigits(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }, '#');
  return text;
}

// The last line, cut to what can be read at a glance.
std::string lastWords(std::string_view log) {
  constexpr std::size_t most = 300;
  log = log.substr(0, log.find_last_not_of(" \n") + 1);
  log.remove_prefix(log.rfind('\n') + 1);  // npos + 1 is 0
  return withoutDigits(std::string(log.substr(0, most)));
}

// Whether the signal comes from what the process does, and not from somebody else.
bool isCrash(int signal) {
  constexpr std::array<int, 7> crashes = {SIGABRT, SIGBUS,  SIGFPE, SIGILL,
                                          SIGSEGV, SIGTRAP, SIGSYS};
  return std::find(crashes.begin(), crashes.end(), signal) != crashes.end();
}

// Why WebKit refuses an expression, from its standard error, where it names nothing but that.
struct Complaint {
  std::string_view expression, reason;

  static std::optional<Complaint> in(std::string_view log) {
    constexpr std::string_view prefix = "Error while parsing ";
    const std::size_t start = log.find(prefix);
    if (start == std::string_view::npos) return std::nullopt;
    log.remove_prefix(start + prefix.size());
    if (log.ends_with('\n')) log.remove_suffix(1);
    const std::size_t separator = log.rfind(": ");
    if (separator == std::string_view::npos) return std::nullopt;
    return Complaint{log.substr(0, separator), log.substr(separator + 2)};
  }
};

RuleListCompiler::Failure timedOut() {
  return {"WebKit did not finish compiling the list in the time that it has.", {}};
}

}  // namespace

// The document could be compiled with more room on the disk.
struct RuleListCompiler::NoRoom : Failure {
  using Failure::Failure;
};

// The helper process of one thread; a new one is started when the last one has gone.
class RuleListCompiler::Helper {
 public:
  // `workFolder` is for WebKit's own files.
  Helper(const Options& options, const StoreFolder::WorkFolder& work, std::string workFolder,
         std::stop_token stop, Clock::time_point deadline)
      : options_(options),
        folder_(work.path()),
        workFolder_(std::move(workFolder)),
        stop_(std::move(stop)),
        deadline_(deadline) {}

  // Starts a process unless there is one, and does not wait for it.
  void launch() {
    if (process_) return;
    try {
      process_.emplace(options_.helper, folder_, workFolder_);
    } catch (const CompilerProcess::Died& died) {
      failToStart(died);
    }
  }

  std::string webKitVersion() {
    launch();
    try {
      return process_->webKitVersion(deadline_, stop_);
    } catch (const CompilerProcess::Died& died) {
      failToStart(died);
    } catch (const CompilerProcess::TimedOut&) {
      throw timedOut();
    }
  }

  struct Trial {
    // Empty if the document is taken.
    std::string reason = {};
    // The expression that WebKit names as the one that it refuses.
    std::optional<std::string> expression = {};

    // Whether there is a filter. A document in which there is nothing to do is taken without.
    bool compiled = false;

    bool taken() const { return reason.empty(); }
  };

  // Throws Failure, for instance when the process is killed from outside, and
  // CompilerProcess::Stopped.
  Trial compile(const std::string& filter, std::span<const std::string_view> document,
                Clock::duration limit = Clock::duration::max()) {
    (void)webKitVersion();
    const Clock::time_point now = Clock::now();
    const bool limited = limit < deadline_ - now;
    try {
      CompilerProcess::Answer answer =
          process_->compile(filter, document, limited ? now + limit : deadline_, stop_);
      if (answer.compiled) return {.compiled = true};
      if (answer.reason == emptyDocument) return {};
      if (std::find(writeErrors.begin(), writeErrors.end(), answer.reason) != writeErrors.end()) {
        failToWrite(answer.reason);
      }
      const std::optional<Complaint> complaint = Complaint::in(answer.log);
      if (!complaint) return {std::move(answer.reason)};
      return {std::string(complaint->reason), std::string(complaint->expression)};
    } catch (const CompilerProcess::Died& died) {
      process_.reset();
      checkMemory(died);
      if (!isCrash(died.signal)) {
        throw Failure(
            "WebKit's compiler ended before it was done: " + std::string(died.what()) + ".",
            lastWords(died.log));
      }
      return {std::string("WebKit's compiler crashes on it: ") + died.what() + "."};
    } catch (const CompilerProcess::TimedOut&) {
      process_.reset();
      if (!limited) throw timedOut();
      return {"WebKit's compiler takes too long over it."};
    }
  }

 private:
  static void checkMemory(const CompilerProcess::Died& died) {
    if (died.neededTooMuchMemory) {
      throw Failure("WebKit's compiler needs more memory for the list than it may have.", {});
    }
    if (died.signal == SIGKILL) {
      throw Failure(
          "WebKit's compiler was killed, perhaps because the system has too little memory.", {});
    }
  }

  [[noreturn]] static void failToStart(const CompilerProcess::Died& died) {
    checkMemory(died);
    throw Failure("WebKit's compiler, the program tamsel-rule-compiler, cannot be started: " +
                      std::string(died.what()) + ".",
                  lastWords(died.log));
  }

  [[noreturn]] void failToWrite(std::string_view reason) const {
    constexpr unsigned long fewFiles = 16;
    constexpr std::uintmax_t fewBytes = std::uintmax_t{32} << 20;
    struct statvfs disk {};
    if (::access(folder_.c_str(), F_OK) != 0 || ::statvfs(folder_.c_str(), &disk) != 0) {
      throw Failure("The folder for the compiled list has gone.", {});
    }
    // Some file systems do not count files.
    if (disk.f_files != 0 && disk.f_favail < fewFiles) {
      throw NoRoom("There is no room on the disk for another file of the compiled list.", {});
    }
    if (std::uintmax_t{disk.f_bavail} * disk.f_frsize < fewBytes) {
      throw NoRoom("There is not enough space on the disk for the compiled list.", {});
    }
    throw Failure("WebKit cannot write the compiled list: " + std::string(reason), {});
  }

  const Options& options_;
  std::string folder_;
  std::string workFolder_;
  std::stop_token stop_;
  Clock::time_point deadline_;
  std::optional<CompilerProcess> process_;
};

// Finds the rules that WebKit refuses in a document that it refuses.
class RuleListCompiler::Search {
 public:
  Search(const RuleParts& rules, Helper& helper, bool all)
      : rules_(rules), helper_(helper), all_(all) {}

  // Those in the part that WebKit refuses for themselves, whatever is around them.
  std::vector<RefusedRule> refusedIn(const RuleParts::Part& part) {
    constexpr std::size_t window = 1024;
    for (const RuleParts::Range& range : part) {
      for (std::size_t first = range.first; first < range.last && !enough(); first += window) {
        search({first, std::min(first + window, range.last)});
      }
    }
    return std::move(found_);
  }

 private:
  // WebKit reads all expressions before it makes anything of them. The last rule, which is refused
  // for certain, ends the compilation there: so it takes little time to learn that the others are
  // taken.
  Helper::Trial test(const RuleParts::Range& range) {
    constexpr std::string_view refusedExpression = R"(\dtamsel)";
    constexpr std::string_view refusedRule =
        R"(,{"action":{"type":"block"},"trigger":{"url-filter":"\\dtamsel"}}])";
    constexpr auto limit = std::chrono::seconds(10);
    std::vector<std::string_view> document = rules_.document({range});
    document.back() = refusedRule;
    Helper::Trial trial = helper_.compile(probe, document, limit);
    if (trial.expression == refusedExpression) return {};
    return trial;
  }

  void search(RuleParts::Range range) {
    while (range.first < range.last && !enough()) {
      const Helper::Trial trial = test(range);
      if (trial.taken()) return;
      if (range.last - range.first == 1) {
        found_.push_back({range.first, trial.reason});
        return;
      }
      std::optional<std::size_t> named;
      if (trial.expression) named = rules_.find(*trial.expression, range);
      if (named) {
        // Those before it are taken.
        found_.push_back({*named, trial.reason});
        range.first = *named + 1;
      } else {
        const std::size_t middle = range.first + (range.last - range.first) / 2;
        search({range.first, middle});
        range.first = middle;
      }
    }
  }

  bool enough() const { return !all_ && !found_.empty(); }

  static constexpr const char* probe = "probe";
  const RuleParts& rules_;
  Helper& helper_;
  bool all_;
  std::vector<RefusedRule> found_;
};

// One compilation, from the document to the filters or the rules that are refused.
class RuleListCompiler::Compilation {
 public:
  Compilation(const Options& options, const Job& job, StoreFolder folder,
              StoreFolder::WorkFolder work)
      : options_(options),
        job_(job),
        deadline_(Clock::now() + options.timeLimit),
        folder_(std::move(folder)),
        work_(std::move(work)),
        helper_(makeHelper(makeHelperFolder(0))) {}

  Outcome run() {
    const std::array<std::string_view, 1> whole = {job_.document};
    source_ = {digestOf(whole), options_.webKitVersion.value_or("")};
    if (!options_.webKitVersion) source_.webKitVersion = helper_.webKitVersion();
    if (const std::optional<std::size_t> count = findKept()) {
      std::vector<StoreFolder::Part> parts;
      for (std::size_t number = 0; number < *count; ++number) parts.push_back({number, {}});
      return compiled(std::move(parts), true);
    }

    helper_.launch();  // it starts up while the document is read
    const RuleParts rules(job_.document);
    if (!rules.refused().empty()) return refused(rules.refused());
    for (const RuleParts::Part& part : rules.parts()) {
      std::size_t count = 0;
      for (const auto& [first, last] : part) count += last - first;
      if (count > maxRules) throw Failure("Too many rules in JSON array.", {});
    }

    source_.webKitVersion = helper_.webKitVersion();
    const std::vector<RuleParts::Part>& parts = rules.parts();
    std::vector<StoreFolder::Part> filters;
    const std::optional<Fault> fault = compileParts(rules, parts, filters);
    if (!fault) return compiled(std::move(filters), false);
    return refused(culprits(rules, parts[fault->part], fault->trial));
  }

 private:
  struct Fault {
    std::size_t part;
    Helper::Trial trial;
  };

  std::string makeHelperFolder(std::size_t number) const {
    return work_.makeFolder("webkit-" + std::to_string(number));
  }
  Helper makeHelper(const std::string& folder) const {
    return {options_, work_, folder, job_.stop, deadline_};
  }

  std::optional<std::size_t> findKept() const {
    return job_.reuse ? folder_.find(source_, work_) : std::nullopt;
  }

  // Compiles as many parts at once as there are processors, the next one whenever one is done,
  // until all are or one is refused.
  std::optional<Fault> compileParts(const RuleParts& rules,
                                    const std::vector<RuleParts::Part>& parts,
                                    std::vector<StoreFolder::Part>& filters) {
    std::mutex mutex;  // guards what follows
    std::size_t next = 0;
    std::size_t done = 0;
    std::optional<Fault> fault;
    std::exception_ptr failure;

    const auto work = [&](Helper& helper) {
      std::unique_lock lock(mutex);
      while (next < parts.size() && !fault && !failure) {
        const std::size_t number = next++;
        lock.unlock();
        Helper::Trial trial;
        std::optional<StoreFolder::Part> filter;
        try {
          trial = compilePart(helper, rules.document(parts[number]), number, filter);
        } catch (...) {
          lock.lock();
          if (!failure) failure = std::current_exception();
          return;
        }
        lock.lock();
        if (filter) filters.push_back(std::move(*filter));
        if (!trial.taken() && !fault) fault = {number, std::move(trial)};
        if (job_.progress) job_.progress(++done, parts.size());
      }
    };
    {
      const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
      std::vector<std::jthread> others;
      for (std::size_t number = 1; number < std::min(processors, parts.size()); ++number) {
        try {
          others.emplace_back([this, &work, folder = makeHelperFolder(number)] {
            Helper helper = makeHelper(folder);
            work(helper);
          });
        } catch (const std::exception&) {
          break;  // no room for its folder, or no thread: those that are there do its share
        }
      }
      if (job_.progress) job_.progress(0, parts.size());
      work(helper_);
    }
    if (failure) std::rethrow_exception(failure);
    return fault;
  }

  // Sets `filter` unless the part is refused or there is nothing in it for WebKit to do.
  Helper::Trial compilePart(Helper& helper, const std::vector<std::string_view>& document,
                            std::size_t number, std::optional<StoreFolder::Part>& filter) {
    const StoreFolder::Source source{digestOf(document), source_.webKitVersion};
    const bool kept = job_.reuse && folder_.findPart(source, work_, number);
    Helper::Trial trial =
        kept ? Helper::Trial{.compiled = true} : helper.compile(work_.filterName(number), document);
    if (trial.compiled) {
      if (::access(work_.filterFile(number).c_str(), F_OK) != 0) {
        throw Failure("WebKit's compiler left no list behind.", {});
      }
      filter = {number, source.document};
    }
    return trial;
  }

  std::vector<RefusedRule> culprits(const RuleParts& rules, const RuleParts::Part& part,
                                    const Helper::Trial& trial) {
    if (trial.expression && !job_.findAll) {
      for (const RuleParts::Range& range : part) {
        if (const auto named = rules.find(*trial.expression, range)) {
          return {{*named, trial.reason}};
        }
      }
    }
    Search search(rules, helper_, job_.findAll);
    const RuleParts::Part all = {{0, rules.count()}};
    std::vector<RefusedRule> found = search.refusedIn(job_.findAll ? all : part);
    if (found.empty()) throw Failure(withoutDigits(trial.reason), {});
    return found;
  }

  static Outcome refused(std::vector<RefusedRule> rules) { return {std::move(rules), nullptr}; }

  Outcome compiled(std::vector<StoreFolder::Part> parts, bool unchanged) {
    std::sort(parts.begin(), parts.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    Outcome outcome;
    outcome.compiled = std::make_unique<const Compiled>(Compiled{
        std::move(folder_), std::move(work_), std::move(source_), std::move(parts), unchanged});
    return outcome;
  }

  const Options& options_;
  const Job& job_;
  Clock::time_point deadline_;
  StoreFolder folder_;
  StoreFolder::WorkFolder work_;
  StoreFolder::Source source_;
  Helper helper_;
};

std::vector<std::string> RuleListCompiler::Compiled::filterNames() const {
  std::vector<std::string> names;
  names.reserve(parts.size());
  for (const StoreFolder::Part& part : parts) names.push_back(work.filterName(part.number));
  return names;
}

RuleListCompiler::Outcome RuleListCompiler::compile(const Job& job) const try {
  std::exception_ptr reason;
  const auto compileIn = [&](const StoreFolder& folder, const StoreFolder& workplace) {
    return Compilation(options_, job, folder, workplace.makeWorkFolder()).run();
  };
  const auto giveUp = [&reason, &job] {
    if (job.stop.stop_requested()) throw CompilerProcess::Stopped("stopped");
    if (!reason) reason = std::current_exception();
  };
  // The first that is there. On a full disk, what is kept in it can be used all the same.
  std::optional<StoreFolder> found;
  for (const std::string& place : {job.folder, options_.defaultFolder}) {
    try {
      const StoreFolder folder(place, job.identifier, job.stop);
      if (!found) found = folder;
      return compileIn(folder, folder);
    } catch (const StoreFolder::Unusable&) {
      giveUp();
    } catch (const NoRoom&) {
      giveUp();
    }
  }
  try {
    const StoreFolder memory(options_.memoryFolder, job.identifier, job.stop);
    return compileIn(found.value_or(memory), memory);
  } catch (const StoreFolder::Unusable&) {
    giveUp();
  } catch (const NoRoom&) {
    giveUp();
  }
  std::rethrow_exception(reason);
} catch (const StoreFolder::Unusable& unusable) {
  throw Failure(
      "The folder for the compiled list cannot be used: " + withoutDigits(unusable.what()) + ".",
      {});
} catch (const RuleParts::Malformed& malformed) {
  throw Failure(malformed.what(), {});
} catch (const CompilerProcess::Stopped&) {
  throw Stopped("The compilation was stopped.");
}

std::string RuleListCompiler::installedHelper() {
  return Files::besideProgram("tamsel-rule-compiler", TAMSEL_HELPER_FOLDER);
}

std::string RuleListCompiler::userMemoryFolder() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || *runtime != '/') return {};
  return fs::path(runtime) / "tamsel" / "RuleStore";
}

std::string RuleListCompiler::userFolder() {
  const char* caches = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  fs::path folder;
  if (caches != nullptr && *caches == '/') {
    folder = caches;
  } else if (home != nullptr && *home == '/') {
    folder = fs::path(home) / ".cache";
  } else {
    return {};
  }
  return folder / "tamsel" / "RuleStore";
}

}  // namespace tamsel
