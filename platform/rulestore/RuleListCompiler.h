#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "platform/rulestore/RuleParts.h"
#include "platform/rulestore/StoreFolder.h"

namespace tamsel {

/// Compiles content-blocker documents with the real WebKit, in helper processes. This program is
/// not linked with WebKit for it, and no document can bring it down.
///
/// Can be used from several threads at once.
class RuleListCompiler {
 public:
  struct Options {
    /// The helper program.
    std::string helper = installedHelper();
    /// Serves when the folder that is asked for cannot be used.
    std::string defaultFolder = userFolder();
    /// In memory; serves when there is no room on the disk. May be empty: there is none.
    std::string memoryFolder = userMemoryFolder();
    /// For one document, from its first helper process to the end of its last.
    std::chrono::milliseconds timeLimit = std::chrono::minutes(3);
    /// The version of WebKit that is to use the result; without it, the helper's is taken.
    std::optional<std::string> webKitVersion = {};
  };

  struct Job {
    std::string_view document = {};
    /// Letters and digits. A list replaces the one that was compiled under the same identifier in
    /// the same folder.
    std::string identifier = {};
    std::string folder = {};
    std::stop_token stop = {};
    /// Whether to look for every rule that is refused, or be content with the first.
    bool findAll = false;
    /// Whether what is kept in the folder may be taken instead of compiling the same again.
    bool reuse = true;
    /// Called now and then from some thread while WebKit compiles: how many of how many parts of
    /// the document are done.
    std::function<void(std::size_t done, std::size_t all)> progress = {};
  };

  /// What WebKit made of a document. The filters are in the work folder until `keep` is called.
  struct Compiled {
    StoreFolder folder;
    StoreFolder::WorkFolder work;
    StoreFolder::Source source;
    /// None if all rules have selectors that WebKit does not know.
    std::vector<StoreFolder::Part> parts;
    /// Whether they were kept from before.
    bool unchanged;

    /// The identifiers that WebKit's store in the work folder has the filters under.
    std::vector<std::string> filterNames() const;

    /// Makes them the ones that are kept in the folder. If that fails, which only costs time later,
    /// the folder is as it was.
    void keep() const {
      if (!unchanged) (void)folder.keep(source, work, parts);
    }
  };

  struct Outcome {
    /// In order; not empty when the document is refused for its rules.
    std::vector<RefusedRule> refused;
    /// Present when no rule is refused.
    std::unique_ptr<const Compiled> compiled;
  };

  /// The document could not be compiled, for no fault of a certain rule. `what` is a sentence
  /// without a number in it, so that none can be taken for the number of a rule.
  struct Failure : std::runtime_error {
    Failure(const std::string& sentence, std::string more)
        : std::runtime_error(sentence), detail(std::move(more)) {}
    /// What else is known; may be empty.
    std::string detail;
  };
  /// A stop was requested.
  struct Stopped : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  /// The most rules that WebKit takes in a document. One that can be divided may have more.
  static constexpr std::size_t maxRules = 150000;

  RuleListCompiler() : RuleListCompiler(Options()) {}
  explicit RuleListCompiler(Options options) : options_(std::move(options)) {}

  /// Waits until the document is compiled or found among what is kept. Throws Failure and Stopped.
  Outcome compile(const Job& job) const;

  /// Where the helper is: beside this program, or where an installation puts it.
  static std::string installedHelper();

  /// The folder "tamsel/RuleStore" among the user's caches; empty for somebody without a home.
  static std::string userFolder();

  /// The same among what lasts as long as the user is logged in; empty where there is no such
  /// place.
  static std::string userMemoryFolder();

 private:
  struct NoRoom;
  class Helper;
  class Search;
  class Compilation;

  Options options_;
};

}  // namespace tamsel
