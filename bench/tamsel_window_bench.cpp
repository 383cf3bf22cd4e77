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
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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
#include "tests/support/SiteServer.h"
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

// A rule list of its own. With one so short, WebKit decides so fast that a page can request much
// more in a second than under a long one.
const std::shared_ptr<const RuleList>& shortList() {
  static const std::shared_ptr<const RuleList> list = [] {
    static WebKitRuleListStore store;
    static const std::string document =
        test::document({test::rule("block", "^https://ads1\\\\.example/"),
                        test::rule("block", "^http://127\\\\.0\\\\.0\\\\.1:[0-9]+/blocked/")});
    std::optional<RuleListStore::Result> result;
    store.compile({{document, nullptr}, "Bench", ListFiles::get().scratch() / "rules"},
                  [&result](RuleListStore::Result compiled) { result = std::move(compiled); });
    runUntil([&result] { return result.has_value(); });
    return std::get<std::shared_ptr<const RuleList>>(*result);
  }();
  return list;
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

// What a page costs that does as much as it can; exactly so many addresses must be counted. The
// memory is compared with that before the first flood in the browser.
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
  static std::map<const BrowserModel*, double> firstMemory;
  const double before = firstMemory.try_emplace(&browser, residentMegabytes()).first->second;
  for (auto step : state) {
    const Ticker ticker;
    const auto start = Clock::now();
    show(browser, "<body><script>" + script + "</script>");
    if (browser.webView->tellsWhatIsBlocked()) {
      awaitBlocked(browser);
    } else {
      runUntil([&] { return *browser.blockedCount >= blocked && !browser.isEvaluating(); });
    }
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

BrowserModel& browserWithShortList() {
  BrowserModel& browser = program().browser();
  browser.setRuleList(shortList());
  return browser;
}

constexpr std::size_t many = 100000;
constexpr const char* manyRequests = R"js(
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
)js";

void blockedRequests(benchmark::State& state) {
  flood(state, browserWithShortList(), manyRequests, many);
}

// A browser in a window of its own.
struct OwnBrowser {
  explicit OwnBrowser(const WebKitView::Options& options)
      : model(std::make_unique<WebKitView>(options)) {
    window.set_default_size(800, 600);
    gtk_window_set_child(window.gobj(), model.webView->widget());
    window.present();
    model.setRuleList(shortList());
  }

  BrowserModel model;
  Gtk::Window window;
};

// The window then hears what pages notice themselves, which is evaluated.
void reportsWithoutModule(benchmark::State& state) {
  (void)program();
  static auto* const browser = new OwnBrowser({.moduleFolder = ""});
  browser->model.app = &program().app();
  flood(state, browser->model, manyRequests, many);
}

// Takes both cores, and has what pages can forge.
constexpr const char* hostileStart = R"js(
  const busy = URL.createObjectURL(new Blob(['for (;;);']));
  const workers = [new Worker(busy), new Worker(busy)];
  const long = 'x'.repeat(5e6);
  const turn = () => new Promise(go => setTimeout(go, 0));
)js";

// Everything a page can say that might reach the program, a million times and of megabytes.
void hostileMessages(benchmark::State& state) {
  flood(state, browserWithShortList(), hostileStart + std::string(R"js(
    const names = ['tmBlocked', 'tamsel-channel', 'tamsel-channel-wanted', 'tamsel-0-0-0-0',
                   'Tamsel', 'blocked', 'ready', 'message', 'error', 'console-message-sent'];
    const forge = detail => {
      for (const name of names) dispatchEvent(new CustomEvent(name, { detail }));
    };
    const link = document.body.appendChild(document.createElement('a'));
    (async () => {
      for (let i = 0; i < 100000; ++i) {
        forge('img https://ads1.example/forged' + i);
        // As if it had failed to load.
        link.href = 'https://ads1.example/link' + i;
        link.dispatchEvent(new Event('error'));
        if (i % 1000 === 0) await turn();
      }
      for (let i = 0; i < 20; ++i) {
        forge(new Uint8Array(1e7));
        forge(Object.fromEntries(Array.from({ length: 100000 }, (_, key) => ['key' + key, i])));
        link.href = 'https://ads1.example/link' + i + long;
        link.dispatchEvent(new Event('error'));
        console.log('Content blocker prevented frame displaying https://example.org/ from ' +
                    'loading a resource from https://ads1.example/' + i + long);
        await turn();
      }
      document.title = 'done';
    })();
  )js"),
        0);
}

// Of a host that is blocked and of one that is not there. WebKit itself tells the window of each
// request, with its address: in a bare view of its own that takes as long.
void longAddresses(benchmark::State& state) {
  flood(state, browserWithShortList(), hostileStart + std::string(R"js(
    const image = src => new Promise(onerror => Object.assign(new Image(), { onerror, src }));
    (async () => {
      for (let i = 0; i < 5; ++i) {
        for (const host of ['https://ads1.example/', 'https://unknown.invalid/']) {
          await image(host + 'image' + i + long);
          await fetch(host + 'fetch' + i + long).catch(() => 0);
        }
      }
      document.title = 'done';
    })();
  )js"),
        10);
}

// Pages of 500 images, each anew, of which the short list blocks 100.
test::SiteServer::Answer imagesOrOne(const std::string& url) {
  if (!url.ends_with("/page")) {
    return {.body = "<svg xmlns='http://www.w3.org/2000/svg' width='9' height='9'/>",
            .type = "image/svg+xml"};
  }
  static int page = 0;
  ++page;
  std::string html;
  for (int i = 0; i < 500; ++i) {
    html += std::string("<img src=/") + (i % 5 == 0 ? "blocked" : "served") + "/" +
            std::to_string(i) + "?" + std::to_string(page) + ">";
  }
  return {.body = html};
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The module against none, in turn, since the machine is not the same from one second to the next.
void pageWithModule(benchmark::State& state) {
  (void)program();
  const auto kept = [](const std::string& name) {
    const std::string folder = ListFiles::get().scratch() / name;
    return webkit_network_session_new((folder + "/data").c_str(), (folder + "/cache").c_str());
  };
  static const std::array sessions = {kept("with"), kept("without")};
  OwnBrowser with({.session = sessions[0]});
  OwnBrowser without({.session = sessions[1], .moduleFolder = ""});
  test::SiteServer server;
  server.others = imagesOrOne;
  const std::string url = server.url() + "/page";
  const auto load = [&](BrowserModel& browser) {
    const auto start = Clock::now();
    browser.go(url);
    runUntil([&browser] { return *browser.isLoading; });
    runUntil([&browser] { return !*browser.isLoading; });
    return millisecondsSince(start);
  };
  constexpr int pairs = 11;
  for (auto step : state) {
    std::vector<double> timesWith, timesWithout;
    for (int i = -2; i < pairs; ++i) {
      const bool isFirst = i % 2 == 0;
      double timeWith = isFirst ? load(with.model) : 0;
      const double timeWithout = load(without.model);
      if (!isFirst) timeWith = load(with.model);
      if (i < 0) continue;
      timesWith.push_back(timeWith);
      timesWithout.push_back(timeWithout);
    }
    state.counters["with"] = median(timesWith);
    state.counters["without"] = median(timesWithout);
    state.counters["ratio"] = median(timesWith) / median(timesWithout);
  }
  awaitBlocked(with.model);
  if (*with.model.blockedCount != 100) state.SkipWithError("not 100 were counted");
}

int runAll(int argc, char** argv) {
  registerOnce("startWithStarterList", startWithStarterList, 9)->UseManualTime();
  registerOnce("startWithLongList", startWithLongList, 9)->UseManualTime();
  registerOnce("switchingTabs", switchingTabs, 5)->UseManualTime();
  registerOnce("typing", typing, 5);
  registerOnce("filtering", filtering, 5)->UseManualTime();
  registerOnce("blockedRequests", blockedRequests, 3)->UseManualTime();
  registerOnce("reportsWithoutModule", reportsWithoutModule, 1)->UseManualTime();
  registerOnce("hostileMessages", hostileMessages, 3)->UseManualTime();
  registerOnce("longAddresses", longAddresses, 3)->UseManualTime();
  registerOnce("pageWithModule", pageWithModule, 3);

  Table table(
      {{"Start to painted window, starter list", "startWithStarterList", "", 700, "ms"},
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
       {"  memory more than before", "blockedRequests", "memory", 30, "MB"},
       {"100,000 without the module: longest stall", "reportsWithoutModule", "stall", 0, "ms"},
       {"  of which computed", "reportsWithoutModule", "computed", 8, "ms"},
       {"  memory more than before", "reportsWithoutModule", "memory", 30, "MB"},
       {"A million hostile messages: longest stall", "hostileMessages", "stall", 150, "ms"},
       {"  of which computed", "hostileMessages", "computed", 16, "ms"},
       {"  memory more than before", "hostileMessages", "memory", 50, "MB"},
       {"for comparison: stall, 5 MB addresses", "longAddresses", "stall", 0, "ms"},
       {"  of which computed, by WebKit", "longAddresses", "computed", 0, "ms"},
       {"  memory more than before", "longAddresses", "memory", 50, "MB"},
       {"A page of 500 requests, with the module", "pageWithModule", "with", 0, "ms"},
       {"  without it", "pageWithModule", "without", 0, "ms"},
       {"  ratio", "pageWithModule", "ratio", 1.05, ""}},
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
