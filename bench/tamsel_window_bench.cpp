// Measures the program with its window, which needs a display: how soon it is there, and how long
// the window does not answer. TAMSEL_LISTS names filter lists (paths with ":" between them), of
// which the first is used; without it a made-up list serves.

#include <adwaita.h>
#include <benchmark/benchmark.h>
#include <glibmm/main.h>
#include <gtkmm/entry.h>
#include <gtkmm/textview.h>
#include <gtkmm/window.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "bench/ListFiles.h"
#include "bench/Table.h"
#include "bench/Ticker.h"
#include "browser/BrowserModel.h"
#include "platform/files/Files.h"
#include "platform/rulestore/WebKitRuleListStore.h"
#include "platform/webview/WebKitView.h"
#include "platform/webview/extension/Protocol.h"
#include "state/Persisted.h"
#include "state/StarterList.h"
#include "tests/support/WebKitRules.h"
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

// Prints when the first window was painted, when the rules were there, and what the program takes
// of the memory when its first page is there too; and ends.
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
  const double compiled = monotonicMilliseconds();
  const auto& browser = dynamic_cast<const BrowserModel&>(app.browser());
  runUntil([&browser] { return !*browser.isLoading && *browser.blockedCount > 0; });
  std::printf("%f %f %f\n", painted, compiled, residentMegabytes());
  std::fflush(stdout);
  // Without the ceremony of an end.
  std::_Exit(app.statusMessage->starts_with("Compiled") ? EXIT_SUCCESS : EXIT_FAILURE);
}

struct Milestones {
  double painted, rules;  // in ms since the start of the process
  double resident;        // in MB
};

Milestones start(benchmark::State& state, const fs::path& data) {
  const std::string program = fs::read_symlink("/proc/self/exe");
  const std::string command = "XDG_DATA_HOME='" + data.string() + "' XDG_CACHE_HOME='" +
                              (data / "cache").string() + "' exec '" + program + "' --start";
  Milestones milestones{};
  const double started = monotonicMilliseconds();
  std::FILE* output = ::popen(command.c_str(), "r");
  const bool read = output != nullptr && std::fscanf(output, "%lf %lf %lf", &milestones.painted,
                                                     &milestones.rules, &milestones.resident) == 3;
  if (output == nullptr || ::pclose(output) != 0 || !read) state.SkipWithError("it failed");
  return {milestones.painted - started, milestones.rules - started, milestones.resident};
}

void measureStart(benchmark::State& state, const fs::path& data) {
  (void)start(state, data);  // the caches
  for (auto step : state) {
    const Milestones milestones = start(state, data);
    state.SetIterationTime(milestones.painted / 1e3);
    state.counters["rules"] = milestones.rules;
    state.counters["resident"] = milestones.resident;
  }
}

void startWithStarterList(benchmark::State& state) {
  measureStart(state, home("starter", {{starterList()}, "", {}}));
}

void startWithLongList(benchmark::State& state) {
  const std::string text = Files::read(ListFiles::get().paths()[0]);
  measureStart(state, home("long", {{starterList(), {.name = "list", .text = text}}, "", {}}));
}

template <typename Kind>
Kind* findShown(Gtk::Widget& widget) {
  if (!widget.get_mapped()) return nullptr;
  if (auto* found = dynamic_cast<Kind*>(&widget)) return found;
  for (Gtk::Widget* child = widget.get_first_child(); child != nullptr;
       child = child->get_next_sibling()) {
    if (Kind* found = findShown<Kind>(*child)) return found;
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

// With the long list, 5,000 lines more that were skipped, and as many custom rules.
const Program& program() {
  static const Program* const program = [] {
    std::string skipped, rules;
    for (int i = 0; i < 5000; ++i) {
      skipped += "example.com##+js(set, a" + std::to_string(i) + ", 1)\n";
      rules += "||ads" + std::to_string(i) + ".example^\n";
    }
    const FilterList list{.name = "skipped", .text = Text(skipped)};
    const FilterList longList{.name = "list", .text = Files::read(ListFiles::get().paths()[0])};
    return new Program(home("running", {{starterList(), list, longList}, rules, {}}));
  }();
  return *program;
}

void settle(int milliseconds) {
  bool isOver = false;
  Glib::signal_timeout().connect_once([&isOver] { isOver = true; },
                                      static_cast<unsigned>(milliseconds));
  runUntil([&isOver] { return isOver; });
}

// How long it takes from an action until the window has painted what it changed, in ms.
double timeToPaint(Gtk::Window& window, const std::function<void()>& action) {
  bool isPainted = false;
  GdkFrameClock* clock = gtk_widget_get_frame_clock(GTK_WIDGET(window.gobj()));
  const auto onPaint = [](GdkFrameClock*, bool* flag) { *flag = true; };
  const gulong handler = g_signal_connect(clock, "after-paint", G_CALLBACK(+onPaint), &isPainted);
  const auto start = Clock::now();
  action();
  runUntil([&isPainted] { return isPainted; });
  g_signal_handler_disconnect(clock, handler);
  return millisecondsSince(start);
}

void typing(benchmark::State& state) {
  if (program().app().skipped->size() < 5000) return state.SkipWithError("too few lines skipped");
  Gtk::Window& window = *program().program->get_active_window();
  showTab(window, "Custom Rules");
  settle(500);
  Gtk::TextView& editor = *findShown<Gtk::TextView>(window);
  editor.grab_focus();
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

// In the filter over the skipped lines, key by key, and then back.
void filtering(benchmark::State& state) {
  Gtk::Window& window = *program().program->get_active_window();
  showTab(window, "Rules");
  settle(500);
  Gtk::Entry& search = *findShown<Gtk::Entry>(window);
  for (auto step : state) {
    double sum = 0;
    double longest = 0;
    int keys = 0;
    const std::string word = "set, a4321";
    for (std::size_t i = 0; i < 2 * word.size(); ++i) {
      const double time = timeToPaint(window, [&] {
        if (i < word.size()) {
          int position = -1;
          search.insert_text(word.substr(i, 1), 1, position);
        } else {
          search.delete_text(static_cast<int>(2 * word.size() - i) - 1, -1);
        }
      });
      sum += time;
      longest = std::max(longest, time);
      ++keys;
      settle(50);
    }
    state.SetIterationTime(sum / keys / 1e3);
    state.counters["longest"] = longest;
  }
}

void switchingTabs(benchmark::State& state) {
  Gtk::Window& window = *program().program->get_active_window();
  for (auto step : state) {
    double longest = 0;
    for (const char* tab : {"Browser", "Lists", "Rules", "URL Tester", "Custom Rules"}) {
      longest = std::max(longest, timeToPaint(window, [&] { showTab(window, tab); }));
      settle(200);
    }
    // The first time makes the rows.
    static const double first = longest;
    state.counters["first"] = first;
    state.SetIterationTime(longest / 1e3);
  }
}

// A rule list of its own with one rule. With it, WebKit decides so fast that a page can request
// much more in a second than under a long list.
std::shared_ptr<const RuleList> listOf(const std::string& blockedExpression) {
  static WebKitRuleListStore store;
  const auto text =
      std::make_shared<const std::string>(test::document({test::rule("block", blockedExpression)}));
  std::optional<RuleListStore::Result> result;
  store.compile({{*text, text}, "Bench", ListFiles::get().scratch() / "rules"},
                [&result](RuleListStore::Result compiled) { result = std::move(compiled); });
  runUntil([&result] { return result.has_value(); });
  return std::get<std::shared_ptr<const RuleList>>(*result);
}

// Shows a page, and waits until its title says that it is done.
void show(BrowserModel& browser, const std::string& html) {
  browser.webView->loadHtml(html, "https://example.org/");
  runUntil([&browser] { return *browser.pageTitle == "done"; });
}

// Until all that WebKit blocked so far has been told.
void awaitBlocked(const BrowserModel& browser) {
  bool isAnswered = false;
  webkit_web_view_send_message_to_page(
      dynamic_cast<WebKitView&>(*browser.webView).webKit(),
      webkit_user_message_new(WebProcess::flush, nullptr), nullptr,
      [](GObject*, GAsyncResult*, gpointer data) { *static_cast<bool*>(data) = true; },
      &isAnswered);
  runUntil([&isAnswered] { return isAnswered; });
}

// What a page costs that has requests blocked, and whatever else, as fast as it can; exactly so
// many addresses must be counted. The memory is compared with that before the first flood of all.
void flood(benchmark::State& state, BrowserModel& browser, const std::string& script,
           std::size_t blocked) {
  const std::string quiet = "<title>quiet</title>";
  const auto calm = [&] {
    browser.webView->loadHtml(quiet, "https://example.org/");
    runUntil([&browser] { return *browser.pageTitle == "quiet" && !*browser.isLoading; });
  };
  // What is not shown is slowed down.
  showTab(*program().program->get_active_window(), "Browser");
  calm();
  settle(500);
  static const double before = residentMegabytes();
  for (auto step : state) {
    const Ticker ticker;
    const auto start = Clock::now();
    show(browser, "<body><script>" + script + "</script>");
    awaitBlocked(browser);
    state.SetIterationTime(millisecondsSince(start) / 1e3);
    state.counters["stall"] = ticker.longest();
    state.counters["computed"] = ticker.mostComputed();
    state.counters["memory"] = residentMegabytes() - before;
  }
  if (*browser.blockedCount != blocked) {
    state.SkipWithError((std::to_string(*browser.blockedCount) + " counted").c_str());
  }
  calm();
}

BrowserModel& browserWithOneRule() {
  BrowserModel& browser = program().browser();
  static const std::shared_ptr<const RuleList> list = listOf("^https://ads1\\\\.example/");
  browser.setRuleList(list);
  return browser;
}

void blockedRequests(benchmark::State& state) {
  flood(state, browserWithOneRule(), R"js(
    let sent = 0, failed = 0;
    const more = () => {
      for (let n = 0; n < 10000; ++n) {
        fetch('https://ads1.example/' + sent++).catch(() => {
          if (++failed === 100000) document.title = 'done';
        });
      }
      if (sent < 100000) setTimeout(more, 0);
    };
    more();
  )js",
        100000);
}

int runAll(int argc, char** argv) {
  registerOnce("startWithStarterList", startWithStarterList, 9)->UseManualTime();
  registerOnce("startWithLongList", startWithLongList, 9)->UseManualTime();
  registerOnce("switchingTabs", switchingTabs, 5)->UseManualTime();
  registerOnce("typing", typing, 5);
  registerOnce("filtering", filtering, 5)->UseManualTime();
  registerOnce("blockedRequests", blockedRequests, 3)->UseManualTime();

  Table table({{"Start to painted window, starter list", "startWithStarterList", "", 700, "ms"},
               {"  to rules active", "startWithStarterList", "rules", 0, "ms"},
               {"Start to painted window, long list", "startWithLongList", "", 0, "ms"},
               {"  to rules active", "startWithLongList", "rules", 1500, "ms"},
               {"  resident", "startWithLongList", "resident", 350, "MB"},
               {"Switching tabs: longest time to paint", "switchingTabs", "", 50, "ms"},
               {"  the first time", "switchingTabs", "first", 50, "ms"},
               {"A key in the filter: time to paint", "filtering", "", 16, "ms"},
               {"  the longest", "filtering", "longest", 16, "ms"},
               {"Typing a rule: longest stall", "typing", "stall", 8, "ms"},
               {"  of which computed", "typing", "computed", 8, "ms"},
               {"100,000 blocked requests: longest stall", "blockedRequests", "stall", 0, "ms"},
               {"  of which computed", "blockedRequests", "computed", 8, "ms"},
               {"  all of it", "blockedRequests", "", 0, "ms"},
               {"  memory more than before", "blockedRequests", "memory", 30, "MB"}},
              "", std::getenv("TAMSEL_LISTS") != nullptr);
  return run(argc, argv, std::move(table));
}

}  // namespace
}  // namespace tamsel::bench

int main(int argc, char** argv) {
  return tamsel::bench::mainOf("tamsel_window_bench", [&] {
    if (argc == 2 && std::string(argv[1]) == "--start") return tamsel::bench::printMilestones();
    return tamsel::bench::runAll(argc, argv);
  });
}
