// Measures the application without its window: rebuilds and saving. TAMSEL_LISTS names filter lists
// (paths with ":" between them), of which the first is used; without it a made-up list serves.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

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

double residentMegabytes() {
  std::size_t pages = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
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

int runAll(int argc, char** argv) {
  const auto some = [](benchmark::internal::Benchmark* benchmark) {
    return benchmark->Unit(benchmark::kMillisecond)
        ->Repetitions(9)
        ->ReportAggregatesOnly()
        ->Iterations(1);
  };
  some(benchmark::RegisterBenchmark("rebuildUnchanged", rebuildUnchanged))->UseManualTime();
  some(benchmark::RegisterBenchmark("rebuildAfterStart", rebuildAfterStart))->UseManualTime();
  some(benchmark::RegisterBenchmark("memoryOfRebuilds", memoryOfRebuilds))->Repetitions(3);
  some(benchmark::RegisterBenchmark("rebuildChanged", rebuildChanged))->UseManualTime();
  some(benchmark::RegisterBenchmark("save", save));

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
               {"save() with three lists of 2 MB", "save", "", 60, "ms"}},
              "", std::getenv("TAMSEL_LISTS") != nullptr);
  return run(argc, argv, std::move(table));
}

}  // namespace
}  // namespace tamsel::bench

int main(int argc, char** argv) {
  try {
    if (argc == 3 && std::string(argv[1]) == "--start") {
      return tamsel::bench::rebuildAtStart(argv[2]);
    }
    return tamsel::bench::runAll(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tamsel_app_bench: %s\n", error.what());
    return 2;
  }
}
