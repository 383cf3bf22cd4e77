#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/http/HttpClient.h"
#include "platform/mainloop/MainLoop.h"
#include "platform/rulestore/RuleListStore.h"
#include "platform/savepanel/SavePanel.h"
#include "state/AppState.h"
#include "state/Browser.h"
#include "tests/support/RunUntil.h"

/// Stand-ins for what the application stands on.
namespace tamsel::test {

/// Remembers what it was asked for.
class FakeBrowser : public Browser {
 public:
  void setApp(AppState* newApp) override { app = newApp; }
  void setRuleList(std::shared_ptr<const RuleList> list) override {
    ruleLists.push_back(std::move(list));
    if (onRuleList) onRuleList();
  }
  void loadDemo() override { ++demos; }

  AppState* app = nullptr;
  int demos = 0;
  std::vector<std::shared_ptr<const RuleList>> ruleLists;
  std::function<void()> onRuleList;
};

/// Answers from the main loop what `answer` says; a list if it is not set.
class FakeRuleListStore : public RuleListStore {
 public:
  void compile(Request request, std::function<void(Result)> completion) override {
    documents.emplace_back(request.document.text);
    Result result = answer ? answer(request) : Result(std::make_shared<const RuleList>());
    MainLoop::call(nullptr, [result = std::move(result), completion = std::move(completion)] {
      completion(result);
    });
  }

  std::function<Result(const Request&)> answer;
  std::vector<std::string> documents;
};

/// Answers what `answer` says, which may throw TransportError.
class FakeHttpClient : public HttpClient {
 public:
  Task<Response> get(std::string url) override {
    if (!answer) throw TransportError("There is no network.");
    co_return answer(url);
  }

  std::function<Response(const std::string& url)> answer;
};

/// Chooses `path`.
class FakeSavePanel : public SavePanel {
 public:
  Task<std::optional<std::string>> ask(Question question) override {
    questions.push_back(std::move(question));
    co_return path;
  }

  std::optional<std::string> path;
  std::vector<Question> questions;
};

}  // namespace tamsel::test
