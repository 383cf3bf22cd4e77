#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace tamsel::bench {

/// A figure to reach: the median of a benchmark's time, or of a counter of it.
struct Figure {
  std::string title;
  std::string benchmark;
  /// The counter; empty for the time.
  std::string counter;
  /// In the unit; 0 for none.
  double target;
  std::string unit;
};

/// Collects medians and prints them at the end as a table of figure, measured, target and their
/// ratio, and how often the yardstick, a benchmark that is measured in the same run, goes into it.
class Table : public benchmark::BenchmarkReporter {
 public:
  Table(std::vector<Figure> figures, std::string yardstick, bool targetsApply);

  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  std::vector<Figure> figures_;
  std::string yardstick_;
  bool targetsApply_;
  std::vector<Run> medians_;
};

/// Registers a benchmark that is its own loop: it runs so many times, and each time measures once.
benchmark::internal::Benchmark* registerOnce(const char* name, void (*function)(benchmark::State&),
                                             int repetitions);

/// Runs the registered benchmarks as the command line says and prints the table. Returns the exit
/// code: 2 when there is an argument that nobody knows.
int run(int argc, char** argv, Table table);

/// Calls what a program does and returns its exit code; 2 if it throws, having said what.
int mainOf(const char* program, const std::function<int()>& body);

/// What of this process is in memory, in millions of bytes.
double residentMegabytes();

}  // namespace tamsel::bench
