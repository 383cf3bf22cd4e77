// Measures what the rule store adds to WebKit's own compiler. TAMSEL_LISTS names filter lists
// (paths with ":" between them); without it a made-up list serves.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/ListFiles.h"
#include "bench/Table.h"
#include "bench/Ticker.h"
#include "compiler/FilterCompiler.h"
#include "compiler/RuleDocument.h"
#include "platform/files/Files.h"
#include "platform/rulestore/WebKitRuleListStore.h"

extern char** environ;

namespace tamsel::bench {
namespace {

namespace fs = std::filesystem;
// The document of the first lists, cut to what WebKit takes.
RuleListStore::Document documentOf(std::size_t lists) {
  std::vector<std::string> texts;
  for (const std::string& path : ListFiles::get().paths()) texts.push_back(Files::read(path));
  texts.resize(std::min(texts.size(), lists));
  std::vector<FilterCompiler::Input> inputs;
  for (const std::string& text : texts) inputs.push_back({Uuid::random(), "list", text});
  SourcedRules rules = FilterCompiler::parse(inputs).rules;
  rules.resize(std::min(rules.size(), RuleListCompiler::maxRules));
  const auto owner = std::make_shared<const ByteBuffer>(RuleDocument::encode(rules));
  return {owner->view(), owner};
}

const RuleListStore::Document& firstDocument() {
  static const RuleListStore::Document document = documentOf(1);
  return document;
}

std::string folderFor(const std::string& name) {
  return ListFiles::get().scratch() / name;
}

// Asks the store and runs the main loop until it answers; returns whether there is a list.
bool compile(RuleListStore& store, const RuleListStore::Document& document,
             const std::string& folder) {
  bool done = false;
  bool compiled = false;
  store.compile({document, "Bench", folder}, [&](const RuleListStore::Result& result) {
    compiled = std::holds_alternative<std::shared_ptr<const RuleList>>(result);
    done = true;
  });
  while (!done) g_main_context_iteration(nullptr, TRUE);
  return compiled;
}

RuleListCompiler::Options options() {
  return {.helper = TAMSEL_RULE_COMPILER_PATH};
}

struct Saving {
  bool done = false, saved = false;
};

void onSaved(GObject* store, GAsyncResult* result, gpointer data) {
  auto& saving = *static_cast<Saving*>(data);
  WebKitUserContentFilter* filter = webkit_user_content_filter_store_save_finish(
      WEBKIT_USER_CONTENT_FILTER_STORE(store), result, nullptr);
  saving = {true, filter != nullptr};
  if (filter != nullptr) webkit_user_content_filter_unref(filter);
}

// WebKit's own store, in this process.
bool compileBare(const RuleListStore::Document& document, const std::string& folder) {
  WebKitUserContentFilterStore* store = webkit_user_content_filter_store_new(folder.c_str());
  GBytes* bytes = g_bytes_new_static(document.text.data(), document.text.size());
  Saving saving;
  webkit_user_content_filter_store_save(store, "bench", bytes, nullptr, onSaved, &saving);
  g_bytes_unref(bytes);
  while (!saving.done) g_main_context_iteration(nullptr, TRUE);
  g_object_unref(store);
  return saving.saved;
}

// Both one after the other, since the machine is not the same from one minute to the next.
void compileThroughStore(benchmark::State& state) {
  WebKitRuleListStore store(options());
  const std::string folder = folderFor("compile");
  for (auto step : state) {
    auto start = Clock::now();
    const bool bareTaken = compileBare(firstDocument(), folder + "-bare");
    const double bare = millisecondsSince(start);
    start = Clock::now();
    const bool taken = compile(store, firstDocument(), folder);
    const double layered = millisecondsSince(start);
    if (!bareTaken || !taken) state.SkipWithError("WebKit refuses the document");
    state.SetIterationTime(layered / 1e3);
    state.counters["bare"] = bare;
    state.counters["factor"] = layered / bare;
    fs::remove_all(folder);
  }
}

// Runs a program and returns what it printed; empty if it failed.
std::string outputOf(std::vector<std::string> words) {
  const std::string file = ListFiles::get().scratch() / "output";
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, file.c_str(),
                                   O_CREAT | O_TRUNC | O_WRONLY, 0600);
  pid_t child = 0;
  int status = -1;
  const bool ran =
      ::posix_spawn(&child, words[0].c_str(), &actions, nullptr, arguments.data(), environ) == 0 &&
      ::waitpid(child, &status, 0) == child && WIFEXITED(status);
  posix_spawn_file_actions_destroy(&actions);
  return ran ? Files::read(file) : "";
}

// Another process that is given a document which was compiled before.
int loadAgain(const std::string& documentPath, const std::string& folder) {
  WebKitRuleListStore store(options());
  const auto owner = std::make_shared<const std::string>(Files::read(documentPath));
  const auto start = Clock::now();
  if (!compile(store, {*owner, owner}, folder)) return EXIT_FAILURE;
  std::printf("%f\n", millisecondsSince(start));
  return EXIT_SUCCESS;
}

void loadInSecondProcess(benchmark::State& state) {
  const std::string document = folderFor("document.json");
  const std::string folder = folderFor("again");
  Files::replace(document, firstDocument().text);
  WebKitRuleListStore store(options());
  if (!compile(store, firstDocument(), folder)) state.SkipWithError("WebKit refuses the document");
  for (auto step : state) {
    const std::string milliseconds = outputOf({"/proc/self/exe", "--again", document, folder});
    if (milliseconds.empty()) state.SkipWithError("the second process failed");
    state.SetIterationTime(std::atof(milliseconds.c_str()) / 1e3);
  }
}

void longestStall(benchmark::State& state) {
  WebKitRuleListStore store(options());
  const std::string folder = folderFor("stall");
  for (auto step : state) {
    RuleListStore::Document document = documentOf(SIZE_MAX);
    const Ticker ticker;
    if (!compile(store, std::move(document), folder)) state.SkipWithError("WebKit refuses it");
    state.counters["stall"] = ticker.longest();
    state.counters["computed"] = ticker.mostComputed();
    fs::remove_all(folder);
  }
}

// The same clock, for as long as that takes, beside as many processes that only fill memory.
void stallBesideBusyProcesses(benchmark::State& state) {
  for (auto step : state) {
    std::vector<pid_t> processes;
    for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); ++i) {
      const pid_t process = ::fork();
      if (process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)::nice(5);
        for (std::size_t byte = 0;; ++byte) {
          benchmark::DoNotOptimize(
              std::vector<char>(std::size_t{1} << 22, static_cast<char>(byte)));
        }
      }
      processes.push_back(process);
    }
    bool over = false;
    g_timeout_add(
        2500,
        [](gpointer data) -> gboolean {
          *static_cast<bool*>(data) = true;
          return G_SOURCE_REMOVE;
        },
        &over);
    const Ticker ticker;
    while (!over) g_main_context_iteration(nullptr, TRUE);
    state.counters["stall"] = ticker.longest();
    for (const pid_t process : processes) {
      ::kill(process, SIGKILL);
      ::waitpid(process, nullptr, 0);
    }
  }
}

// `tamselc check` of 20,000 rules, with 50 among them that are refused and without.
void checkRefused(benchmark::State& state) {
  constexpr std::size_t ruleCount = 20000;
  constexpr std::size_t refusedCount = 50;
  const std::string folder = folderFor("check");
  ::setenv("XDG_CACHE_HOME", folder.c_str(), 1);
  const std::vector<std::string> lines = split(Files::read(ListFiles::get().paths()[0]), '\n');
  std::string good;
  std::string faulty;
  std::size_t taken = 0;
  for (const std::string& line : lines) {
    if (taken == ruleCount) break;
    if (!line.starts_with("||")) continue;
    good += line + "\n";
    faulty += line + "\n";
    if (++taken % (ruleCount / refusedCount) == 0) {
      faulty += "/[a-\\xff]" + std::to_string(taken) + "/$image\n";
    }
  }
  Files::replace(folderFor("good.txt"), good);
  Files::replace(folderFor("faulty.txt"), faulty);
  const auto time = [&](const std::string& list, const std::string& words) {
    fs::remove_all(folder);
    const auto start = Clock::now();
    const std::string output = outputOf({TAMSELC_PATH, "check", folderFor(list)});
    if (output.find(words) == std::string::npos) state.SkipWithError(output.c_str());
    return millisecondsSince(start);
  };
  for (auto step : state) {
    const double plain = time("good.txt", "WebKit takes all");
    const double checked = time("faulty.txt", "WebKit refuses " + std::to_string(refusedCount));
    state.SetIterationTime(checked / 1e3);
    state.counters["extra"] = checked - plain;
  }
}

int runAll(int argc, char** argv) {
  registerOnce("compileThroughStore", compileThroughStore, 5)->UseManualTime();
  registerOnce("loadInSecondProcess", loadInSecondProcess, 5)->UseManualTime();
  registerOnce("longestStall", longestStall, 5)->UseManualTime();
  registerOnce("stallBesideBusyProcesses", stallBesideBusyProcesses, 5)->UseManualTime();
  registerOnce("checkRefused", checkRefused, 5)->UseManualTime();
  // WebKit's work files belong on the file system of its store.
  ::setenv("TMPDIR", ListFiles::get().scratch().c_str(), 1);

  Table table(
      {{"Rule store: compile, times the bare store", "compileThroughStore", "factor", 1.05, ""},
       {"Rule store: the same again, new process", "loadInSecondProcess", "", 60, "ms"},
       {"Rule store: longest stall of the main loop", "longestStall", "stall", 4, "ms"},
       {"tamselc check: 50 refused of 20,000, extra", "checkRefused", "extra", 1000, "ms"},
       {"for comparison: stall beside busy processes", "stallBesideBusyProcesses", "stall", 0,
        "ms"},
       {"for comparison: computed in the stall", "longestStall", "computed", 0, "ms"},
       {"for comparison: compile through the store", "compileThroughStore", "", 0, "ms"},
       {"for comparison: compile in the bare store", "compileThroughStore", "bare", 0, "ms"}},
      "", std::getenv("TAMSEL_LISTS") != nullptr);
  return run(argc, argv, std::move(table));
}

}  // namespace
}  // namespace tamsel::bench

int main(int argc, char** argv) {
  return tamsel::bench::mainOf("tamsel_store_bench", [&] {
    if (argc == 4 && std::string(argv[1]) == "--again") {
      return tamsel::bench::loadAgain(argv[2], argv[3]);
    }
    return tamsel::bench::runAll(argc, argv);
  });
}
