#pragma once

#include <webkit/webkit.h>

#include <memory>
#include <vector>

#include "platform/rulestore/RuleListCompiler.h"
#include "platform/rulestore/RuleListStore.h"

namespace tamsel {

/// A rule list for WebKitGTK's web views: all of its filters together do what the document says.
/// They have the same identifiers as those of another list that was compiled under the same
/// identifier, so a web view must let go of that one before it takes this one.
class WebKitRuleList : public RuleList {
 public:
  struct Unref {
    void operator()(WebKitUserContentFilter* filter) const {
      webkit_user_content_filter_unref(filter);
    }
  };
  using Filters = std::vector<std::unique_ptr<WebKitUserContentFilter, Unref>>;

  explicit WebKitRuleList(Filters filters) : filters_(std::move(filters)) {}

  /// None when the document has no rule that WebKit can apply.
  const Filters& filters() const noexcept { return filters_; }

 private:
  Filters filters_;
};

/// The store of the real WebKit. It has its documents compiled by RuleListCompiler and loads the
/// result into this process. Its lists are WebKitRuleLists.
class WebKitRuleListStore : public RuleListStore {
 public:
  explicit WebKitRuleListStore(RuleListCompiler::Options options = {});
  ~WebKitRuleListStore() override;

  void compile(Request request, std::function<void(Result)> completion) override;

 private:
  class Job;

  RuleListCompiler compiler_;
  std::vector<std::shared_ptr<Job>> jobs_;
};

}  // namespace tamsel
