#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "compiler/ByteBuffer.h"
#include "compiler/RuleModel.h"
#include "engine/Engine.h"
#include "platform/http/HttpClient.h"
#include "platform/mainloop/Observable.h"
#include "platform/mainloop/Task.h"
#include "platform/rulestore/RuleListStore.h"
#include "platform/savepanel/SavePanel.h"
#include "state/Browser.h"
#include "state/CompileQueue.h"
#include "state/FilterList.h"
#include "state/StateFile.h"

namespace tamsel {

/// The application: the user's filter lists, custom rules and paused sites, which it keeps on disk,
/// and what the last rebuild made of them.
///
/// Everything happens on the main thread. What takes time happens elsewhere and comes back to it.
class AppState {
 public:
  /// What the application stands on. All but the browser must outlive it.
  struct Platform {
    /// Where the state and the compiled rules are kept; made when it is missing.
    std::string supportDir;
    RuleListStore& ruleListStore;
    HttpClient& httpClient;
    SavePanel& savePanel;
    std::unique_ptr<Browser> browser;
  };

  /// The most rules that are handed to WebKit.
  static constexpr std::size_t ruleLimit = 150000;
  /// The most compilations of one rebuild, each without one more rule that WebKit refused.
  static constexpr int compileAttempts = 40;

  /// Loads the state, starts the first rebuild, and has the browser show the demo page.
  explicit AppState(Platform platform);
  AppState(const AppState&) = delete;
  AppState& operator=(const AppState&) = delete;
  /// Ends what is under way.
  ~AppState();

  /// The folder "Tamsel" among the user's data.
  static std::string userSupportDir();

  ChangeSignal objectWillChange;

  /// In display order.
  Observable<std::vector<FilterList>> lists{objectWillChange};
  /// The user's own filter lines.
  Observable<std::string> customRules{objectWillChange};
  /// Hosts in lower case, without "www.".
  Observable<std::set<std::string>> pausedSites{objectWillChange};
  /// Of the last rebuild, for each list with rules or skipped lines.
  Observable<std::map<Uuid, ListStats>> stats{objectWillChange};
  /// The lines that the last rebuild could not convert, or WebKit refused.
  Observable<std::vector<SkippedRule>> skipped{objectWillChange};
  Observable<std::size_t> totalRules{objectWillChange};
  Observable<bool> isCompiling{objectWillChange};
  Observable<bool> isRefreshing{objectWillChange};
  Observable<std::string> statusMessage{objectWillChange};
  /// Why WebKit did not compile the rules of the last rebuild.
  Observable<std::optional<std::string>> compileError{objectWillChange};
  /// Whether the last rebuild dropped rules beyond `ruleLimit`.
  Observable<bool> truncated{objectWillChange};
  /// What a person should know beyond that, in a sentence, until it is no longer so or they have
  /// seen it: that the state could not be read, or is not saved. Empty if there is nothing.
  Observable<std::string> notice{objectWillChange};

  /// The matcher of the last rebuild; null before the first.
  const std::shared_ptr<const Engine>& engine() const noexcept { return engine_; }
  Browser& browser() const noexcept { return *platform_.browser; }

  /// Writes the whole state. A failure is a notice: the next call writes it all again.
  void save();

  /// Compiles the enabled lists and the custom rules anew. What an earlier call began ends without
  /// a trace.
  void rebuild();

  /// Adds a pasted list. Without a name, it has its title.
  void addList(const std::string& name, const std::string& text);

  /// Adds a list from an address. Without a name, it has its title or its host. Returns what went
  /// wrong, in a sentence; nothing if it was added.
  Task<std::optional<std::string>> addListFromAddress(std::string name, std::string urlString);

  /// Switches a list on or off.
  void toggle(const Uuid& id);

  /// Removes a list, unless it is built in.
  void remove(const Uuid& id);

  /// Downloads a list again, or all that have an address.
  void refresh(std::optional<Uuid> id);

  /// What a host is called where sites are paused: in lower case, without "www.".
  static std::string siteName(std::string_view host);

  /// Whether filtering is paused on the host or on one above it.
  bool isPaused(std::string_view host) const;

  /// Pauses filtering on the host and all below it, or resumes it there, which ends every pause
  /// that covers the host.
  void setPaused(std::string_view host, bool paused);

  /// Asks for a file and writes the document there that WebKit last compiled.
  void exportJSON();

  /// The title that a list gives itself in a line "! Title: …" among its first 20 that are not
  /// empty.
  static std::optional<std::string> title(std::string_view text);

  /// The index of a rule in the text of an error: the first decimal number that follows the word
  /// "index" or "rule" after at most 20 characters.
  static std::optional<std::size_t> badRuleIndex(std::string_view message);

 private:
  struct Rebuild;

  void load();
  Persisted persisted() const;

  Task<void> performRebuild(CompileQueue::Turn turn);
  Task<void> compile(Rebuild& rebuild);
  void publish(Rebuild& rebuild);
  void publishFailure(const std::string& sentence);
  static std::shared_ptr<const ByteBuffer> emptyDocument();

  // Nothing if there is room for it in the state file, else why not, in a sentence.
  std::optional<std::string> refusalOf(const FilterList& list) const;
  void append(FilterList list);
  Task<void> performRefresh(std::optional<Uuid> id);
  Task<std::string> downloadAgain(std::optional<Uuid> id);

  Task<void> performExport();

  Platform platform_;
  StateFile stateFile_;
  CompileQueue compileQueue_;
  std::shared_ptr<const Engine> engine_;
  /// What WebKit last compiled.
  std::shared_ptr<const ByteBuffer> exportData_;
  /// What was last to be saved could not be.
  bool isUnsaved_ = false;
  TaskScope tasks_;
};

}  // namespace tamsel
