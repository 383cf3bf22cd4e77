#include "platform/rulestore/WebKitRuleListStore.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/mainloop/MainLoop.h"
#include "platform/mainloop/Uncaught.h"

namespace tamsel {
namespace {

std::string webKitVersion() {
  return std::to_string(webkit_get_major_version()) + "." +
         std::to_string(webkit_get_minor_version()) + "." +
         std::to_string(webkit_get_micro_version());
}

RuleListCompiler::Options withVersion(RuleListCompiler::Options options) {
  if (!options.webKitVersion) options.webKitVersion = webKitVersion();
  return options;
}

// Filters on their way from the folder into this process: asked for on the main thread, waited for
// on another.
class Loading : public std::enable_shared_from_this<Loading> {
 public:
  explicit Loading(std::size_t count) : filters_(count), missing_(count) {}

  // On the main thread.
  void start(const std::string& folder, const std::vector<std::string>& names) {
    const std::lock_guard lock(mutex_);
    if (givenUp_) return;  // the folder has gone, and WebKit would make it again
    WebKitUserContentFilterStore* store = webkit_user_content_filter_store_new(folder.c_str());
    for (std::size_t i = 0; i < names.size(); ++i) {
      webkit_user_content_filter_store_load(store, names[i].c_str(), nullptr, onLoaded,
                                            new Answer{shared_from_this(), i});
    }
    g_object_unref(store);
  }

  // On the other thread. Returns whether all answers are there; if not, a stop was requested.
  bool wait(const std::stop_token& stop) {
    std::unique_lock lock(mutex_);
    givenUp_ = !changed_.wait(lock, stop, [this] { return missing_ == 0; });
    return !givenUp_;
  }

  // What went wrong; empty if nothing did. After `wait`.
  const std::string& error() const noexcept { return error_; }
  WebKitRuleList::Filters takeFilters() { return std::move(filters_); }

 private:
  struct Answer {
    std::shared_ptr<Loading> loading;
    std::size_t index;
  };

  static void onLoaded(GObject* store, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Answer> answer(static_cast<Answer*>(data));
    Loading& loading = *answer->loading;
    GError* error = nullptr;
    WebKitUserContentFilter* filter = webkit_user_content_filter_store_load_finish(
        WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
    const std::lock_guard lock(loading.mutex_);
    loading.filters_[answer->index].reset(filter);
    if (error != nullptr) {
      Uncaught::guard([&] { loading.error_ = error->message; });
      g_error_free(error);
    }
    --loading.missing_;
    loading.changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable_any changed_;
  WebKitRuleList::Filters filters_;
  std::size_t missing_;
  bool givenUp_ = false;
  std::string error_;
};

}  // namespace

// One compilation: a thread that waits for WebKit, so that the main loop does not.
class WebKitRuleListStore::Job : public std::enable_shared_from_this<Job> {
 public:
  Job(WebKitRuleListStore& store, Request request, std::function<void(Result)> completion)
      : store_(&store),
        compiler_(store.compiler_),
        request_(std::move(request)),
        completion_(std::move(completion)),
        context_(g_main_context_ref_thread_default()),
        stopOnRequest_(request_.stop, [this] { stop_.request_stop(); }) {}
  ~Job() { g_main_context_unref(context_); }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  void start() {
    try {
      thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
      result_ = Error{"The system has no thread left for compiling the list."};
      MainLoop::call(context_, [job = shared_from_this()] { job->complete(); });
    }
  }

  // Ends it without a completion.
  void abandon() {
    store_ = nullptr;
    stop_.request_stop();
    if (thread_.joinable()) thread_.join();
  }

 private:
  // The whole of it, on the thread.
  void run() {
    result_ = compile();
    request_.document = {};  // what may be megabytes is not freed on the main thread
    MainLoop::call(context_, [job = shared_from_this()] { job->complete(); });
  }

  Result compile() {
    try {
      bool unchanged = false;
      Result result = compileAndLoad(true, unchanged);
      // What is kept could be loaded once. If it cannot be now, it is not what it seems to be.
      const bool doubtful = unchanged && std::holds_alternative<Error>(result);
      return doubtful ? compileAndLoad(false, unchanged) : result;
    } catch (const RuleListCompiler::Failure& failure) {
      return Error{failure.what(), failure.detail};
    } catch (const RuleListCompiler::Stopped& stopped) {
      return Error{stopped.what()};
    } catch (const std::bad_alloc&) {
      return Error{"There is not enough memory for compiling the list."};
    } catch (const std::exception&) {
      return Error{"The list could not be compiled."};
    }
  }

  Result compileAndLoad(bool reuse, bool& unchanged) {
    const RuleListCompiler::Outcome outcome = compiler_.compile({.document = request_.document.text,
                                                                 .identifier = request_.identifier,
                                                                 .folder = request_.folder,
                                                                 .stop = stop_.get_token(),
                                                                 .reuse = reuse});
    if (!outcome.refused.empty()) {
      const RefusedRule& refused = outcome.refused.front();
      return Error{
          .message = "Rule " + std::to_string(refused.index) + " was refused: " + refused.reason,
          .ruleIndex = refused.index};
    }
    const RuleListCompiler::Compiled& compiled = *outcome.compiled;
    unchanged = compiled.unchanged;
    if (compiled.parts.empty()) {
      compiled.keep();
      return std::make_shared<const WebKitRuleList>(WebKitRuleList::Filters());
    }
    const auto loading = std::make_shared<Loading>(compiled.parts.size());
    loadings_.push_back(loading);
    MainLoop::call(context_, [loading, folder = compiled.work.path(),
                              names = compiled.filterNames()] { loading->start(folder, names); });
    if (!loading->wait(stop_.get_token())) {
      throw RuleListCompiler::Stopped("The compilation was stopped.");
    }
    if (!loading->error().empty()) {
      return Error{"WebKit cannot load the list that it compiled: " + loading->error()};
    }
    compiled.keep();
    return std::make_shared<const WebKitRuleList>(loading->takeFilters());
  }

  // The end of it, on the main thread.
  void complete() {
    if (store_ == nullptr) return;
    if (thread_.joinable()) thread_.join();
    const std::shared_ptr<Job> self = shared_from_this();
    std::erase(store_->jobs_, self);
    store_ = nullptr;
    completion_(std::move(result_));
  }

  WebKitRuleListStore* store_;  // null when nobody waits any more; for the main thread
  const RuleListCompiler& compiler_;
  Request request_;
  std::function<void(Result)> completion_;
  GMainContext* context_;
  std::stop_source stop_;
  std::stop_callback<std::function<void()>> stopOnRequest_;
  std::thread thread_;
  Result result_;
  // Here, so that what they hold is let go on the main thread.
  std::vector<std::shared_ptr<Loading>> loadings_;
};

WebKitRuleListStore::WebKitRuleListStore(RuleListCompiler::Options options)
    : compiler_(withVersion(std::move(options))) {}

WebKitRuleListStore::~WebKitRuleListStore() {
  for (const std::shared_ptr<Job>& job : jobs_) job->abandon();
}

void WebKitRuleListStore::compile(Request request, std::function<void(Result)> completion) {
  jobs_.push_back(std::make_shared<Job>(*this, std::move(request), std::move(completion)));
  jobs_.back()->start();
}

}  // namespace tamsel
