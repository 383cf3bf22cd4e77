// Measures the application without its window: rebuilds and saving. TAMSEL_LISTS names filter lists
// (paths with ":" between them), of which the first is used; without it a made-up list serves.

#include <benchmark/benchmark.h>
#include <libsoup/soup.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "bench/ListFiles.h"
#include "bench/Table.h"
#include "bench/Ticker.h"
#include "platform/files/Files.h"
#include "platform/http/SoupHttpClient.h"
#include "platform/rulestore/WebKitRuleListStore.h"
#include "state/AppState.h"

namespace tamsel::bench {
namespace {

namespace fs = std::filesystem;

// The real store, and the time that it takes.
class TimedStore : public RuleListStore {
 public:
  void compile(Request request, std::function<void(Result)> completion) override {
    const auto start = Clock::now();
    store_.compile(std::move(request),
                   [this, start, completion = std::move(completion)](const Result& result) {
                     time += millisecondsSince(start);
                     completion(result);
                   });
  }

  double time = 0;  // in ms

 private:
  WebKitRuleListStore store_{{.helper = TAMSEL_RULE_COMPILER_PATH}};
};

class NoBrowser : public Browser {
 public:
  void setApp(AppState*) override {}
  void setRuleList(std::shared_ptr<const RuleList> list) override { list_ = std::move(list); }
  void loadDemo() override {}

 private:
  std::shared_ptr<const RuleList> list_;
};

class NoPanel : public SavePanel {
 public:
  Task<std::optional<std::string>> ask(Question) override { co_return std::nullopt; }
};

// The application with the first list, and what it stands on.
struct Application {
  explicit Application(const std::string& folder)
      : app({folder, store, client, panel, std::make_unique<NoBrowser>()}) {
    settle();
  }

  void settle() const {
    while (app.isCompiling.get()) g_main_context_iteration(nullptr, TRUE);
  }

  void rebuild() {
    store.time = 0;
    app.rebuild();
    settle();
  }

  TimedStore store;
  SoupHttpClient client;
  NoPanel panel;
  AppState app;
};

Application& application() {
  static const auto application = [] {
    auto made = std::make_unique<Application>(ListFiles::get().scratch() / "Tamsel");
    made->app.addList("list", Files::read(ListFiles::get().paths()[0]));
    made->settle();
    return made;
  }();
  return *application;
}

void checkCompiled(benchmark::State& state) {
  if (application().app.statusMessage->starts_with("Compiled")) return;
  state.SkipWithError(application().app.statusMessage->c_str());
}

// Nothing has changed.
void rebuildUnchanged(benchmark::State& state) {
  Application& running = application();
  for (auto step : state) {
    const Ticker ticker;
    const auto start = Clock::now();
    running.rebuild();
    state.SetIterationTime(millisecondsSince(start) / 1e3);
    state.counters["store"] = running.store.time;
    state.counters["stall"] = ticker.longest();
    state.counters["computed"] = ticker.mostComputed();
  }
  checkCompiled(state);
}

// Another process, started with what this one left: prints the time of its first rebuild in ms.
int rebuildAtStart(const std::string& folder) {
  const auto start = Clock::now();
  const Application started(folder);
  const bool compiled = started.app.statusMessage->starts_with("Compiled");
  std::printf("%f\n", millisecondsSince(start));
  return compiled ? EXIT_SUCCESS : EXIT_FAILURE;
}

void rebuildAfterStart(benchmark::State& state) {
  (void)application();
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const std::string command =
      "'" + program + "' --start '" + (ListFiles::get().scratch() / "Tamsel").string() + "'";
  for (auto step : state) {
    double milliseconds = 0;
    std::FILE* output = ::popen(command.c_str(), "r");
    const bool read = output != nullptr && std::fscanf(output, "%lf", &milliseconds) == 1;
    if (output == nullptr || ::pclose(output) != 0 || !read) state.SkipWithError("it failed");
    state.SetIterationTime(milliseconds / 1e3);
  }
}

// One line of the custom rules has.
void rebuildChanged(benchmark::State& state) {
  Application& running = application();
  static int round = 0;
  for (auto step : state) {
    running.app.customRules = "||changed" + std::to_string(++round) + ".example^";
    const Ticker ticker;
    const auto start = Clock::now();
    running.rebuild();
    const double time = millisecondsSince(start);
    state.SetIterationTime((time - running.store.time) / 1e3);
    state.counters["all"] = time;
    state.counters["stall"] = ticker.longest();
    state.counters["computed"] = ticker.mostComputed();
  }
  checkCompiled(state);
}

// What ten rebuilds leave behind that two do not.
void memoryOfRebuilds(benchmark::State& state) {
  Application& running = application();
  for (auto step : state) {
    for (int i = 0; i < 2; ++i) running.rebuild();
    const double before = residentMegabytes();
    for (int i = 0; i < 10; ++i) running.rebuild();
    state.counters["factor"] = residentMegabytes() / before;
    state.counters["resident"] = residentMegabytes();
  }
}

std::size_t helperCount() {
  std::size_t count = 0;
  std::error_code gone;
  for (fs::directory_iterator thread("/proc/self/task", gone), last; !gone && thread != last;
       thread.increment(gone)) {
    std::ifstream children(thread->path() / "children");
    for (long child = 0; children >> child;) ++count;
  }
  return count;
}

// Somebody in a hurry: twelve changes within a second, the list being on at the end. The list has
// to be compiled as a whole, as nothing is kept of it. TAMSEL_HURRIES says how often.
void hurry(benchmark::State& state) {
  static Application& running = *new Application(ListFiles::get().scratch() / "Hurrying");
  if (running.app.lists->size() == 1) {
    running.app.addList("list", Files::read(ListFiles::get().paths()[0]));
    running.settle();
  }
  const Uuid starter = running.app.lists->front().id, list = running.app.lists->back().id;
  const auto forget = [] {
    fs::remove_all(ListFiles::get().scratch() / "Hurrying" / "RuleStore");
    fs::remove_all(RuleListCompiler::userFolder() + "/TamselRules");
  };
  static int round = 0;
  for (auto step : state) {
    std::mt19937 random(static_cast<unsigned>(++round));
    std::vector<int> moments(12);
    for (int& moment : moments) moment = static_cast<int>(random() % 1000);
    std::sort(moments.begin(), moments.end());
    forget();
    std::size_t mostHelpers = 0;
    auto last = Clock::now();
    const auto start = last;
    const Ticker ticker;  // so that the loop turns
    for (const int moment : moments) {
      while (millisecondsSince(start) < moment) {
        g_main_context_iteration(nullptr, TRUE);
        mostHelpers = std::max(mostHelpers, helperCount());
      }
      if (const auto what = random() % 3; what == 0) {
        running.app.toggle(list);
      } else if (what == 1) {
        running.app.toggle(starter);
      } else {
        running.app.customRules = "||hurry" + std::to_string(random()) + ".example^";
        running.app.rebuild();
      }
      last = Clock::now();
    }
    while (*running.app.isCompiling) {
      g_main_context_iteration(nullptr, TRUE);
      mostHelpers = std::max(mostHelpers, helperCount());
    }
    const double hurried = millisecondsSince(last);
    const std::string status = *running.app.statusMessage;
    const auto stats = *running.app.stats;

    forget();
    const auto again = Clock::now();
    running.rebuild();
    if (status != *running.app.statusMessage || stats != *running.app.stats) {
      state.SkipWithError(("published: " + status).c_str());
    }
    state.SetIterationTime(hurried / 1e3);
    state.counters["times"] = hurried / millisecondsSince(again);
    state.counters["helpers"] = static_cast<double>(mostHelpers);
  }
}

void save(benchmark::State& state) {
  constexpr std::size_t listLength = 2000000;
  const std::string folder = ListFiles::get().scratch() / "Saving";
  fs::remove_all(folder);
  Application running(folder);
  std::string text = Files::read(ListFiles::get().paths()[0]);
  while (text.size() < listLength) text += text;
  text.resize(listLength);
  running.app.lists.modify([&text](auto& lists) {
    for (int i = 0; i < 3; ++i) lists.push_back({.name = "list", .text = text, .enabled = false});
  });
  for (auto step : state) running.app.save();
}

// Serves one text to whoever asks, from a thread of its own.
class TextServer {
 public:
  explicit TextServer(std::string text) : text_(std::move(text)) {
    std::promise<std::string> started;
    thread_ = std::thread([this, &started] { serve(started); });
    url = started.get_future().get();
  }
  ~TextServer() {
    g_main_loop_quit(loop_);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  TextServer(const TextServer&) = delete;
  TextServer& operator=(const TextServer&) = delete;

  std::string url;

 private:
  void serve(std::promise<std::string>& started) {
    g_main_context_push_thread_default(context_);
    SoupServer* server = soup_server_new(nullptr, nullptr);
    const auto answer = [](SoupServer*, SoupServerMessage* message, const char*, GHashTable*,
                           gpointer data) {
      const std::string& text = static_cast<TextServer*>(data)->text_;
      soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
      soup_server_message_set_response(message, "text/plain", SOUP_MEMORY_STATIC, text.data(),
                                       text.size());
    };
    soup_server_add_handler(server, nullptr, answer, this, nullptr);
    soup_server_listen_local(server, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, nullptr);
    GSList* uris = soup_server_get_uris(server);
    char* uri = g_uri_to_string(static_cast<GUri*>(uris->data));
    started.set_value(uri);
    g_free(uri);
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    g_main_loop_run(loop_);
    g_object_unref(server);
    g_main_context_pop_thread_default(context_);
  }

  std::string text_;
  GMainContext* context_ = g_main_context_new();
  GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
  std::thread thread_;
};

// From the request for the list to its rules being active.
void addByAddress(benchmark::State& state) {
  static Application& running = *new Application(ListFiles::get().scratch() / "Adding");
  static const TextServer& server = *new TextServer(Files::read(ListFiles::get().paths()[0]));
  for (auto step : state) {
    running.store.time = 0;
    const auto start = Clock::now();
    Task<std::optional<std::string>> adding = running.app.addListFromAddress("", server.url);
    while (!adding.isDone()) g_main_context_iteration(nullptr, TRUE);
    const double downloaded = millisecondsSince(start);
    running.settle();
    const double all = millisecondsSince(start);
    if (const auto error = adding.await_resume()) state.SkipWithError(error->c_str());
    state.SetIterationTime((all - running.store.time) / 1e3);
    state.counters["downloaded"] = downloaded;
    state.counters["all"] = all;
  }
  running.app.remove(running.app.lists->back().id);
  running.settle();
}

int runAll(int argc, char** argv) {
  registerOnce("rebuildUnchanged", rebuildUnchanged, 9)->UseManualTime();
  registerOnce("rebuildAfterStart", rebuildAfterStart, 9)->UseManualTime();
  registerOnce("memoryOfRebuilds", memoryOfRebuilds, 3);
  registerOnce("rebuildChanged", rebuildChanged, 9)->UseManualTime();
  const char* hurries = std::getenv("TAMSEL_HURRIES");
  registerOnce("hurry", hurry, hurries == nullptr ? 5 : std::atoi(hurries))->UseManualTime();
  registerOnce("save", save, 9);
  registerOnce("addByAddress", addByAddress, 5)->UseManualTime();

  Table table({{"Rebuild: main loop held, computed", "rebuildChanged", "computed", 8, "ms"},
               {"Rebuild: longest stall of the main loop", "rebuildChanged", "stall", 8, "ms"},
               {"Rebuild, unchanged: stall", "rebuildUnchanged", "stall", 8, "ms"},
               {"Rebuild, unchanged since the last start", "rebuildAfterStart", "", 400, "ms"},
               {"Rebuild, unchanged", "rebuildUnchanged", "", 400, "ms"},
               {"  of which the store", "rebuildUnchanged", "store", 20, "ms"},
               {"Rebuild after a changed line, without WebKit", "rebuildChanged", "", 350, "ms"},
               {"for comparison: with WebKit", "rebuildChanged", "all", 0, "ms"},
               {"Resident after ten rebuilds more, times", "memoryOfRebuilds", "factor", 1.05, ""},
               {"for comparison: resident", "memoryOfRebuilds", "resident", 0, "MB"},
               {"Twelve changes in a second: the last, times", "hurry", "times", 1.3, ""},
               {"  helpers at most", "hurry", "helpers", 2, ""},
               {"save() with three lists of 2 MB", "save", "", 60, "ms"},
               {"A list added by address, without WebKit", "addByAddress", "", 600, "ms"},
               {"  of which the download", "addByAddress", "downloaded", 0, "ms"},
               {"for comparison: with WebKit", "addByAddress", "all", 0, "ms"}},
              "", std::getenv("TAMSEL_LISTS") != nullptr);
  return run(argc, argv, std::move(table));
}

}  // namespace
}  // namespace tamsel::bench

int main(int argc, char** argv) {
  return tamsel::bench::mainOf("tamsel_app_bench", [&] {
    if (argc == 3 && std::string(argv[1]) == "--start") {
      return tamsel::bench::rebuildAtStart(argv[2]);
    }
    return tamsel::bench::runAll(argc, argv);
  });
}
