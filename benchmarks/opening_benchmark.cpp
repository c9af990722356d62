// What it costs the process of a C program to open the client library: each time in a new process.
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "benchmarks/support/pairs.h"
#include "support/program.h"

namespace {

struct Opening {
  double milliseconds = 0;
  double kib = 0;  // of memory that the process shares with no one
};

Opening Open() {
  const support::Finished end = support::RunProgram({LIBRARY_OPENER_PATH, CLIENT_LIBRARY_PATH});
  Opening opening;
  if (end.exit_code != 0 ||
      sscanf(end.out.c_str(), "%lf %lf", &opening.milliseconds, &opening.kib) != 2) {
    throw std::runtime_error("not opened: " + end.err);
  }
  return opening;
}

double MedianOf(double Opening::*figure) {
  std::vector<double> values;
  for (int i = 0; i < benchmarks::DefaultPairs(); ++i) values.push_back(Open().*figure);
  return benchmarks::Median(values);
}

}  // namespace

int main(int argc, char** argv) {
  benchmarks::RegisterFigure("a process opens the client library", "ms", 2.5,
                             [] { return MedianOf(&Opening::milliseconds); });
  benchmarks::RegisterFigure("memory of its own for it", "KiB", 400,
                             [] { return MedianOf(&Opening::kib); });
  return benchmarks::RunAll(argc, argv);
}
