#include "bench/Table.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <optional>

namespace tamsel::bench {
namespace {

using Run = benchmark::BenchmarkReporter::Run;

double milliseconds(const Run& run) {
  return run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e3;
}

double inUnit(double ms, const std::string& unit) {
  if (unit == "µs") return ms * 1e3;
  return ms;
}

}  // namespace

Table::Table(std::vector<Figure> figures, std::string yardstick, bool targetsApply)
    : figures_(std::move(figures)), yardstick_(std::move(yardstick)), targetsApply_(targetsApply) {}

bool Table::ReportContext(const Context& /*context*/) {
  return true;
}

void Table::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.error_occurred) {
      std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
    }
    if (run.aggregate_name == "median") medians_.push_back(run);
  }
}

void Table::Finalize() {
  const auto median = [this](const std::string& name) -> std::optional<Run> {
    const auto found = std::find_if(medians_.begin(), medians_.end(), [&](const Run& run) {
      return run.run_name.function_name == name;
    });
    return found == medians_.end() ? std::nullopt : std::optional(*found);
  };
  const auto yardstick = median(yardstick_);
  if (yardstick)
    std::printf("Yardstick (%s): %.2f ms\n\n", yardstick_.c_str(), milliseconds(*yardstick));
  std::printf("%-46s %12s %12s %8s %12s\n", "Figure", "Measured", "Target", "Ratio", "Yardsticks");
  for (const Figure& figure : figures_) {
    const auto run = median(figure.benchmark);
    if (!run) continue;
    const bool isTime = figure.counter.empty();
    const double measured =
        isTime ? inUnit(milliseconds(*run), figure.unit) : run->counters.at(figure.counter).value;
    std::printf("%-46s %8.2f %-3s", figure.title.c_str(), measured, figure.unit.c_str());
    if (targetsApply_ && figure.target > 0) {
      std::printf(" %8.2f %-3s %8.2f", figure.target, figure.unit.c_str(),
                  measured / figure.target);
    } else {
      std::printf(" %12s %8s", "-", "-");
    }
    if (yardstick && isTime) {
      std::printf(" %12.2f\n", milliseconds(*run) / milliseconds(*yardstick));
    } else {
      std::printf(" %12s\n", "-");
    }
  }
}

benchmark::internal::Benchmark* registerOnce(const char* name, void (*function)(benchmark::State&),
                                             int repetitions) {
  return benchmark::RegisterBenchmark(name, function)
      ->Unit(benchmark::kMillisecond)
      ->Repetitions(repetitions)
      ->ReportAggregatesOnly()
      ->Iterations(1);
}

int run(int argc, char** argv, Table table) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks(&table);
  return 0;
}

int mainOf(const char* program, const std::function<int()>& body) {
  try {
    return body();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
    return 2;
  }
}

double residentMegabytes() {
  std::size_t pages = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
}

}  // namespace tamsel::bench
