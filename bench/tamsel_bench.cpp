// Measures what the compiler and the matcher take. TAMSEL_LISTS names filter lists (paths with ":"
// between them) and TAMSEL_REQUESTS a file of requests; without them a made-up list serves.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "bench/ListFiles.h"
#include "bench/MadeUpLists.h"
#include "bench/Table.h"
#include "compiler/FilterCompiler.h"
#include "compiler/RuleDocument.h"
#include "engine/Engine.h"
#include "platform/dialect/ContentBlockerDialect.h"
#include "platform/files/Files.h"

extern char** environ;

namespace tamsel::bench {
namespace {

using Clock = std::chrono::steady_clock;

struct Request {
  std::string url;
  std::optional<std::string> page;
  std::string type;
};

std::vector<Request> readRequests(const std::string& text) {
  std::vector<Request> requests;
  for (const std::string& line : split(text, '\n')) {
    const std::vector<std::string> fields = split(line, '\t');
    if (fields.size() != 3) continue;
    const auto page = fields[1].empty() ? std::nullopt : std::optional(fields[1]);
    requests.push_back({fields[0], page, fields[2]});
  }
  return requests;
}

// What is measured, read or made up once.
class Data {
 public:
  static const Data& get() {
    static const Data data;
    return data;
  }

  const std::vector<FilterCompiler::Input>& lists() const { return lists_; }
  const std::vector<FilterCompiler::Input>& tenfold() const { return tenfold_; }
  const SourcedRules& rules() const { return rules_; }
  const std::vector<Request>& requests() const { return requests_; }

  static bool isReal() {
    return std::getenv("TAMSEL_LISTS") != nullptr && std::getenv("TAMSEL_REQUESTS") != nullptr;
  }

  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;

 private:
  Data() {
    constexpr std::size_t madeUpRequestCount = 20000;
    const char* requests = std::getenv("TAMSEL_REQUESTS");
    requests_ = readRequests(requests != nullptr ? Files::read(requests)
                                                 : madeUpRequests(madeUpRequestCount, madeUpSeed));
    const std::vector<std::string>& paths = ListFiles::get().paths();
    texts_.reserve(paths.size() * 2);
    for (const std::string& path : paths) lists_.push_back(input(Files::read(path)));
    for (std::size_t i = 0; i < paths.size(); ++i) {
      tenfold_.push_back(input(multiplied(texts_[i], 10)));
    }
    rules_ = FilterCompiler::parse(lists_).rules;
  }

  FilterCompiler::Input input(std::string text) {
    texts_.push_back(std::move(text));
    return {Uuid::random(), "list", texts_.back()};
  }

  std::vector<std::string> texts_;
  std::vector<FilterCompiler::Input> lists_;
  std::vector<FilterCompiler::Input> tenfold_;
  SourcedRules rules_;
  std::vector<Request> requests_;
};

// A fixed amount of plain work on the same bytes: what the machine can do right now.
void yardstick(benchmark::State& state) {
  for (auto step : state) {
    std::uint64_t hash = 14695981039346656037U;
    for (const FilterCompiler::Input& list : Data::get().lists()) {
      for (char c : list.text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    }
    benchmark::DoNotOptimize(hash);
  }
}

void parse(benchmark::State& state) {
  for (auto step : state) {
    auto output = FilterCompiler::parse(Data::get().lists());
    state.PauseTiming();  // freeing is somebody else's time: the program does it on a worker
    output = {};
    state.ResumeTiming();
  }
}

void encode(benchmark::State& state) {
  for (auto step : state) benchmark::DoNotOptimize(RuleDocument::encode(Data::get().rules()));
}

void construct(benchmark::State& state) {
  for (auto step : state) {
    state.PauseTiming();
    SourcedRules rules = Data::get().rules();
    state.ResumeTiming();
    auto engine = std::make_unique<Engine>(std::move(rules));
    state.PauseTiming();
    engine.reset();
    state.ResumeTiming();
  }
}

// Whether WebKit would take every expression and selector.
void dialect(benchmark::State& state) {
  for (auto step : state) {
    std::size_t refused = 0;
    for (const SourcedRule& rule : Data::get().rules()) {
      const WKRule& wk = rule.rule;
      if (ContentBlockerDialect::refusalOfExpression(wk.trigger.urlFilter)) ++refused;
      if (!wk.action.selector) continue;
      if (ContentBlockerDialect::refusalOfSelector(*wk.action.selector)) ++refused;
    }
    benchmark::DoNotOptimize(refused);
  }
}

double nanosecondsOf(const Engine& engine, const Request& request) {
  const auto start = Clock::now();
  benchmark::DoNotOptimize(engine.evaluate(request.url, request.page, request.type));
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// The median time of each request over some rounds; of these the mean and the 99th percentile.
void evaluate(benchmark::State& state) {
  constexpr std::size_t rounds = 5;
  static const Engine engine{SourcedRules(Data::get().rules())};
  const std::vector<Request>& requests = Data::get().requests();
  for (auto step : state) {
    std::vector<std::vector<double>> times(requests.size());
    for (std::size_t round = 0; round < rounds; ++round) {
      for (std::size_t i = 0; i < requests.size(); ++i) {
        times[i].push_back(nanosecondsOf(engine, requests[i]));
      }
    }
    std::vector<double> medians;
    for (std::vector<double>& of : times) {
      std::nth_element(of.begin(), of.begin() + rounds / 2, of.end());
      medians.push_back(of[rounds / 2]);
    }
    std::sort(medians.begin(), medians.end());
    const double sum = std::accumulate(medians.begin(), medians.end(), 0.0);
    state.counters["mean"] = sum / static_cast<double>(medians.size()) / 1e3;
    state.counters["p99"] = medians[medians.size() * 99 / 100] / 1e3;
    state.counters["worst"] = medians.back() / 1e3;
  }
}

// `tamselc compile` as a process, from start to end. Has to come before anything that fills this
// process's memory: a child's peak starts at its parent's size.
void compileProcess(benchmark::State& state) {
  const std::string output = ListFiles::get().scratch() / "document.json";
  std::vector<std::string> words = {TAMSELC_PATH, "compile", "-o", output};
  words.insert(words.end(), ListFiles::get().paths().begin(), ListFiles::get().paths().end());
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", 1, 0);
  for (auto step : state) {
    const auto start = Clock::now();
    pid_t child = 0;
    int status = -1;
    rusage usage{};
    if (::posix_spawn(&child, words[0].c_str(), &actions, nullptr, arguments.data(), environ) !=
            0 ||
        ::wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) > 1) {  // 1: WebKit would not take so many
      state.SkipWithError("tamselc compile failed");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    state.counters["peak"] = static_cast<double>(usage.ru_maxrss) / 1024;
  }
  posix_spawn_file_actions_destroy(&actions);
}

using StepTimes = std::array<double, 3>;  // in seconds

// Parse, compile into a document as tamselc does, and matcher for lists.
StepTimes stepTimes(const std::vector<FilterCompiler::Input>& lists) {
  StepTimes times{};
  auto begin = Clock::now();
  const auto endOfStep = [&](std::size_t step) {
    const auto end = Clock::now();
    times[step] = std::chrono::duration<double>(end - begin).count();
    begin = end;
  };
  ParseOutput output = FilterCompiler::parse(lists);
  endOfStep(0);
  std::size_t written = 0;
  (void)FilterCompiler::compileDocument(
      lists, [&written](std::string_view piece) { written += piece.size(); });
  benchmark::DoNotOptimize(written);
  endOfStep(1);
  const Engine engine(std::move(output.rules));
  endOfStep(2);
  return times;
}

// The fastest of each step so far.
void keepFastest(StepTimes& fastest, const StepTimes& times) {
  for (std::size_t i = 0; i < times.size(); ++i) {
    if (fastest[i] == 0 || times[i] < fastest[i]) fastest[i] = times[i];
  }
}

// Compares the fastest steps: the system may take memory back in between, and what it takes to get
// that again is not what is asked here.
void growth(benchmark::State& state) {
  static StepTimes once{};
  static StepTimes tenTimes{};
  for (auto iteration : state) {
    keepFastest(once, stepTimes(Data::get().lists()));
    keepFastest(tenTimes, stepTimes(Data::get().tenfold()));
    state.counters["factor"] = std::accumulate(tenTimes.begin(), tenTimes.end(), 0.0) /
                               std::accumulate(once.begin(), once.end(), 0.0);
  }
}

int runAll(int argc, char** argv) {
  const auto many = [](benchmark::internal::Benchmark* benchmark) {
    benchmark->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly();
  };
  many(benchmark::RegisterBenchmark("compileProcess", compileProcess)
           ->UseManualTime()
           ->Iterations(1));
  many(benchmark::RegisterBenchmark("yardstick", yardstick)->MinTime(0.1));
  many(benchmark::RegisterBenchmark("parse", parse)->Iterations(3));
  many(benchmark::RegisterBenchmark("encode", encode)->Iterations(3));
  many(benchmark::RegisterBenchmark("construct", construct)->Iterations(3));
  many(benchmark::RegisterBenchmark("dialect", dialect)->Iterations(3));
  many(benchmark::RegisterBenchmark("evaluate", evaluate)->Iterations(1));
  many(benchmark::RegisterBenchmark("growth", growth)->Iterations(1));

  Table table({{"FilterCompiler::parse, all lists", "parse", "", 90, "ms"},
               {"RuleDocument::encode", "encode", "", 45, "ms"},
               {"Engine construction", "construct", "", 80, "ms"},
               {"Engine::evaluate, mean", "evaluate", "mean", 0.7, "µs"},
               {"Engine::evaluate, 99th percentile", "evaluate", "p99", 4, "µs"},
               {"ContentBlockerDialect, all rules", "dialect", "", 40, "ms"},
               {"tamselc compile, wall", "compileProcess", "", 250, "ms"},
               {"tamselc compile, peak memory", "compileProcess", "peak", 200, "MiB"},
               {"All of it for ten times the lists, factor", "growth", "factor", 11, ""}},
              "yardstick", Data::isReal());
  const int exitCode = run(argc, argv, std::move(table));
  if (exitCode != 0) return exitCode;
  std::size_t bytes = 0;
  for (const auto& list : Data::get().lists()) bytes += list.text.size();
  std::printf("\nLists of %.1f MB, %zu rules, %zu requests%s.\n", static_cast<double>(bytes) / 1e6,
              Data::get().rules().size(), Data::get().requests().size(),
              Data::isReal() ? "" : ", made up: no targets");
  return 0;
}

}  // namespace
}  // namespace tamsel::bench

int main(int argc, char** argv) {
  return tamsel::bench::mainOf("tamsel_bench", [&] { return tamsel::bench::runAll(argc, argv); });
}
