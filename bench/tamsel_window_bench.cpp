// Measures the program with its window, which needs a display: how soon it is there, and how long
// the window does not answer. TAMSEL_LISTS names filter lists (paths with ":" between them), of
// which the first is used; without it a made-up list serves.

#include <adwaita.h>
#include <benchmark/benchmark.h>
#include <glibmm/main.h>
#include <gtkmm/textview.h>
#include <gtkmm/window.h>
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
#include "browser/BrowserModel.h"
#include "platform/files/Files.h"
#include "state/Persisted.h"
#include "state/StarterList.h"
#include "ui/App.h"

namespace tamsel::bench {
namespace {

namespace fs = std::filesystem;

void runUntil(const std::function<bool()>& isSo) {
  while (!isSo()) g_main_context_iteration(nullptr, TRUE);
}

double monotonicMilliseconds() {
  return std::chrono::duration<double, std::milli>(Clock::now().time_since_epoch()).count();
}

double residentMegabytes() {
  std::size_t pages = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
}

FilterList starterList() {
  return {.id = Starter::id,
          .name = std::string(Starter::name),
          .text = Starter::text,
          .isBuiltIn = true};
}

// A folder for a user's data, with this state in it.
fs::path home(const std::string& name, const Persisted& state) {
  const fs::path data = ListFiles::get().scratch() / name;
  if (!fs::exists(data / "Tamsel")) {
    fs::create_directories(data / "Tamsel");
    Files::replace((data / "Tamsel" / "state.json").string(), state.encode());
  }
  return data;
}

// The program in this process, which can have only one.
struct Program {
  explicit Program(const fs::path& data) {
    g_setenv("XDG_DATA_HOME", data.c_str(), TRUE);
    g_setenv("XDG_CACHE_HOME", (data / "cache").c_str(), TRUE);
    program = TamselApp::create();
    program->register_application();
    program->activate();
    runUntil([this] { return !*app().isCompiling && !*browser().isLoading; });
  }
  AppState& app() const { return *program->app(); }
  BrowserModel& browser() const { return dynamic_cast<BrowserModel&>(app().browser()); }

  Glib::RefPtr<TamselApp> program;
};

// Prints when the first window was painted and when the rules were there, and ends.
int printMilestones() {
  const auto program = TamselApp::create();
  double painted = 0;
  program->signal_window_added().connect([&painted](Gtk::Window* window) {
    const auto onPaint = [](GdkFrameClock*, double* when) {
      if (*when == 0) *when = monotonicMilliseconds();
    };
    window->signal_realize().connect([window, &painted, onPaint] {
      GdkFrameClock* clock = gtk_widget_get_frame_clock(GTK_WIDGET(window->gobj()));
      g_signal_connect(clock, "after-paint", G_CALLBACK(+onPaint), &painted);
    });
  });
  program->register_application();
  program->activate();
  const AppState& app = *program->app();
  runUntil([&] { return painted > 0 && !*app.isCompiling; });
  std::printf("%f %f\n", painted, monotonicMilliseconds());
  std::fflush(stdout);
  // Without the ceremony of an end.
  std::_Exit(app.statusMessage->starts_with("Compiled") ? EXIT_SUCCESS : EXIT_FAILURE);
}

struct Milestones {
  double painted, rules;  // in ms since the start of the process
};

Milestones start(benchmark::State& state, const fs::path& data) {
  const std::string program = fs::read_symlink("/proc/self/exe");
  const std::string command = "XDG_DATA_HOME='" + data.string() + "' XDG_CACHE_HOME='" +
                              (data / "cache").string() + "' exec '" + program + "' --start";
  Milestones milestones{};
  const double started = monotonicMilliseconds();
  std::FILE* output = ::popen(command.c_str(), "r");
  const bool read = output != nullptr &&
                    std::fscanf(output, "%lf %lf", &milestones.painted, &milestones.rules) == 2;
  if (output == nullptr || ::pclose(output) != 0 || !read) state.SkipWithError("it failed");
  return {milestones.painted - started, milestones.rules - started};
}

void measureStart(benchmark::State& state, const fs::path& data) {
  (void)start(state, data);  // the caches
  for (auto step : state) {
    const Milestones milestones = start(state, data);
    state.SetIterationTime(milestones.painted / 1e3);
    state.counters["rules"] = milestones.rules;
  }
}

void startWithStarterList(benchmark::State& state) {
  measureStart(state, home("starter", {{starterList()}, "", {}}));
}

void startWithLongList(benchmark::State& state) {
  const std::string text = Files::read(ListFiles::get().paths()[0]);
  measureStart(state, home("long", {{starterList(), {.name = "list", .text = text}}, "", {}}));
}

Gtk::TextView* findEditor(Gtk::Widget& widget) {
  if (auto* editor = dynamic_cast<Gtk::TextView*>(&widget)) return editor;
  for (Gtk::Widget* child = widget.get_first_child(); child != nullptr;
       child = child->get_next_sibling()) {
    if (Gtk::TextView* editor = findEditor(*child)) return editor;
  }
  return nullptr;
}

void showTab(Gtk::Widget& widget, const char* name) {
  if (ADW_IS_VIEW_STACK(widget.gobj())) {
    adw_view_stack_set_visible_child_name(ADW_VIEW_STACK(widget.gobj()), name);
  }
  for (Gtk::Widget* child = widget.get_first_child(); child != nullptr;
       child = child->get_next_sibling()) {
    showTab(*child, name);
  }
}

// With 5,000 lines that were skipped, and as many custom rules.
const Program& program() {
  static const Program* const program = [] {
    std::string skipped, rules;
    for (int i = 0; i < 5000; ++i) {
      skipped += "example.com##+js(set, a" + std::to_string(i) + ", 1)\n";
      rules += "||ads" + std::to_string(i) + ".example^\n";
    }
    const FilterList list{.name = "list", .text = Text(skipped)};
    return new Program(home("running", {{starterList(), list}, rules, {}}));
  }();
  return *program;
}

void typing(benchmark::State& state) {
  if (program().app().skipped->size() < 5000) return state.SkipWithError("too few lines skipped");
  Gtk::Window& window = *program().program->get_active_window();
  showTab(window, "Custom Rules");
  Gtk::TextView& editor = *findEditor(window);
  editor.grab_focus();
  const auto settle = [](int milliseconds) {
    bool isOver = false;
    Glib::signal_timeout().connect_once([&isOver] { isOver = true; },
                                        static_cast<unsigned>(milliseconds));
    runUntil([&isOver] { return isOver; });
  };
  settle(500);
  const auto buffer = editor.get_buffer();
  buffer->place_cursor(buffer->get_iter_at_line(2500));
  for (auto step : state) {
    const Ticker ticker;
    for (const char key : std::string("||banner.example^$image")) {
      const Glib::ustring text(1, static_cast<gunichar>(key));
      buffer->insert_interactive_at_cursor(text, true);
      settle(30);
    }
    state.counters["stall"] = ticker.longest();
    state.counters["computed"] = ticker.mostComputed();
  }
}

// A page posts 100,000 reports as fast as it can, of as many URLs that a rule blocks.
void reports(benchmark::State& state) {
  BrowserModel& browser = program().browser();
  const double before = residentMegabytes();
  for (auto step : state) {
    const Ticker ticker;
    browser.webView->loadHtml(
        "<script>let i = 0; const more = () => { for (let n = 0; n < 10000; ++n, ++i)"
        "webkit.messageHandlers.tmBlocked.postMessage({url: 'https://ads.example.com/' + i, "
        "type: 'img'}); if (i < 100000) setTimeout(more, 0); }; more()</script>",
        "https://example.org/");
    const auto start = Clock::now();
    runUntil([&browser] { return *browser.blockedCount < 100000; });
    runUntil([&browser] { return *browser.blockedCount == 100000; });
    state.SetIterationTime(millisecondsSince(start) / 1e3);
    state.counters["stall"] = ticker.longest();
    state.counters["computed"] = ticker.mostComputed();
    state.counters["memory"] = residentMegabytes() - before;
  }
}

int runAll(int argc, char** argv) {
  const auto some = [](benchmark::internal::Benchmark* benchmark) {
    return benchmark->Unit(benchmark::kMillisecond)
        ->Repetitions(9)
        ->ReportAggregatesOnly()
        ->Iterations(1)
        ->UseManualTime();
  };
  some(benchmark::RegisterBenchmark("startWithStarterList", startWithStarterList));
  some(benchmark::RegisterBenchmark("startWithLongList", startWithLongList));
  benchmark::RegisterBenchmark("typing", typing)
      ->Repetitions(5)
      ->ReportAggregatesOnly()
      ->Iterations(1);
  some(benchmark::RegisterBenchmark("reports", reports))->Repetitions(5);

  Table table({{"Start to painted window, starter list", "startWithStarterList", "", 700, "ms"},
               {"  to rules active", "startWithStarterList", "rules", 0, "ms"},
               {"Start to painted window, long list", "startWithLongList", "", 0, "ms"},
               {"  to rules active", "startWithLongList", "rules", 1500, "ms"},
               {"Typing a rule: longest stall", "typing", "stall", 8, "ms"},
               {"  of which computed", "typing", "computed", 8, "ms"},
               {"100,000 reports: longest stall", "reports", "stall", 16, "ms"},
               {"  of which computed", "reports", "computed", 16, "ms"},
               {"  all of it", "reports", "", 0, "ms"},
               {"  memory more than before", "reports", "memory", 0, "MB"}},
              "", std::getenv("TAMSEL_LISTS") != nullptr);
  return run(argc, argv, std::move(table));
}

}  // namespace
}  // namespace tamsel::bench

int main(int argc, char** argv) {
  try {
    if (argc == 2 && std::string(argv[1]) == "--start") return tamsel::bench::printMilestones();
    return tamsel::bench::runAll(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tamsel_window_bench: %s\n", error.what());
    return 2;
  }
}
