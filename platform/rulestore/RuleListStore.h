#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <variant>

namespace tamsel {

/// A rule list that WebKit compiled. What can be done with it only a web view of the same make
/// knows. To be let go of on the main thread.
class RuleList {
 public:
  RuleList() = default;
  RuleList(const RuleList&) = delete;
  RuleList& operator=(const RuleList&) = delete;
  virtual ~RuleList() = default;
};

/// Compiles content-blocker documents into rule lists and keeps them in folders.
///
/// For the main thread. Nothing here holds it up.
class RuleListStore {
 public:
  /// Why there is no list.
  struct Error {
    /// A sentence for a person.
    std::string message;
    /// What else is known, or nothing.
    std::string detail = {};
    /// The rule that is at fault, by its index in the document counted from 0. When there is none
    /// there is no number in the texts either that could be taken for one.
    std::optional<std::size_t> ruleIndex = {};

    bool operator==(const Error&) const = default;
  };

  using Result = std::variant<std::shared_ptr<const RuleList>, Error>;

  /// Text that lives as long as its owner, which whoever holds this holds.
  struct Document {
    std::string_view text;
    std::shared_ptr<const void> owner;
  };

  struct Request {
    /// The document of the content-blocker format: a JSON array of rules. As many as there may be
    /// if they are blocks, exceptions and element hiding in this order, else at most 150,000.
    Document document;
    /// Letters and digits. The list takes the place of the one compiled before under the same
    /// identifier in the same folder; when there is an error, that one stays.
    std::string identifier;
    /// Made when it is missing. When it cannot be used, a folder of the store's own serves.
    std::string folder;
    /// Ends the compilation at once, with an error.
    std::stop_token stop = {};
  };

  RuleListStore() = default;
  RuleListStore(const RuleListStore&) = delete;
  RuleListStore& operator=(const RuleListStore&) = delete;
  /// Ends what is under way; nobody is told.
  virtual ~RuleListStore() = default;

  /// Returns at once. `completion` is called once, later, from the main loop. A document that was
  /// compiled before into what is still kept is not compiled again.
  virtual void compile(Request request, std::function<void(Result)> completion) = 0;
};

}  // namespace tamsel
