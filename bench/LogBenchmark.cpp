// Log calls beside the least that could stand in their place. A benchmark is named OPERATION/SETTING/WHO. The counter
// "calls" is the number of calls in one iteration; "allocations" is how often a call takes heap memory, on average.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "log/Allocations.h"
#include "log/Destination.h"
#include "log/EmptyFunction.h"
#include "logging/logging.h"

namespace {

constexpr const char* LOG_SOURCE = "Benchmark";
constexpr int NUMBER = 7;

/// So many calls in one iteration that what the loop itself costs does not count.
#define TEN_TIMES(call) \
  call;                 \
  call;                 \
  call;                 \
  call;                 \
  call;                 \
  call;                 \
  call;                 \
  call;                 \
  call;                 \
  call

/// Counts over many calls, so that what happens once in a hundred lines or a second is in it.
template <typename Call>
void countAllocations(benchmark::State& state, Call call) {
  constexpr int CALLS = 1000;
  const long before = allocations();
  for (int count = 0; count < CALLS; ++count) {
    call();
  }
  state.counters["allocations"] = static_cast<double>(allocations() - before) / CALLS;
}

void droppedLine(benchmark::State& state) {
  const FileDestination destination;
  const char* text = "text";
  int number = NUMBER;
  benchmark::DoNotOptimize(text);
  benchmark::DoNotOptimize(number);
  for (auto _ : state) {
    TEN_TIMES(LOG_DEBUG("a line about %s and %d", text, number));
  }
  state.counters["calls"] = 10;
  countAllocations(state, [&] { LOG_DEBUG("a line about %s and %d", text, number); });
}

void emptyCall(benchmark::State& state) {
  const char* text = "text";
  int number = NUMBER;
  benchmark::DoNotOptimize(text);
  benchmark::DoNotOptimize(number);
  for (auto _ : state) {
    TEN_TIMES(emptyFunction("a line about %s and %d", text, number));
  }
  state.counters["calls"] = 10;
}

template <typename Where>
void writtenLine(benchmark::State& state, const std::string& text) {
  const Where destination;
  const auto line = [&] { LOG_INFO("a line about %s and %d", text.c_str(), NUMBER); };
  for (auto _ : state) {
    line();
  }
  state.counters["calls"] = 1;
  countAllocations(state, line);
}

/// One system call with the bytes that the log would have put together.
template <typename Where>
void bareWrite(benchmark::State& state, const std::string& text) {
  const Where destination;
  const std::string line = "12:00:00.000 [Benchmark:100] a line about " + text + " and 7\n";
  for (auto _ : state) {
    if (write(destination.descriptor(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      state.SkipWithError("write failed");
      break;
    }
  }
  state.counters["calls"] = 1;
}

template <typename Where>
void addWritten(const std::string& setting, const std::string& text) {
  const auto add = [&](const std::string& who, void (*run)(benchmark::State&, const std::string&)) {
    benchmark::RegisterBenchmark(("written line/" + setting + "/" + who).c_str(),
                                 [=](benchmark::State& state) { run(state, text); });
  };
  add("LOG_INFO", writtenLine<Where>);
  add("write", bareWrite<Where>);
}

/// Whether the counter is the one that the C library and operator new use.
bool counterWorks() {
  const long before = allocations();
  char* volatile copy = strdup("a text");
  std::free(copy);
  const std::unique_ptr<int> number = std::make_unique<int>(1);
  benchmark::DoNotOptimize(number.get());
  return allocations() == before + 2;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  benchmark::RegisterBenchmark("dropped line/two arguments/LOG_DEBUG", droppedLine);
  benchmark::RegisterBenchmark("dropped line/two arguments/empty function", emptyCall);
  addWritten<FileDestination>("short to a file", "a text");
  addWritten<FileDestination>("4 KiB to a file", std::string(4096, 'x'));
  addWritten<NullDestination>("short to null", "a text");
  benchmark::Initialize(&argumentCount, arguments);
  if (benchmark::ReportUnrecognizedArguments(argumentCount, arguments) || !counterWorks()) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
}
