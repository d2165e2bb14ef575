// The JSON library beside others. A benchmark is named OPERATION/SETTING/WHO; those that differ in WHO alone do the
// same work. The counter "bytes" is the length of the text that one iteration takes. A text that a library refuses ends
// the program.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "json/Libraries.h"
#include "json/Operations.h"
#include "json/Texts.h"
#include "json/json.h"

namespace {

using Function = void (*)(const std::string& text);

/// Reads by single characters what parse_value reads at once.
void push(const std::string& text) {
  const std::unique_ptr<json::reader> reader = std::make_unique<json::reader>();
  json::reader* pushed = reader.get();
  benchmark::DoNotOptimize(pushed);  // the calls are virtual, as in a program that does not know the class
  for (const char c : text) {
    if (pushed->push(c) == json::reader::REJECTED) {
      break;
    }
  }
  if (!pushed->is_valid()) {
    throw std::runtime_error("the reader refuses the text");
  }
  benchmark::DoNotOptimize(pushed->readout());
}

void parseValue(const std::string& text) {
  const json::parse_results results = json::parse_value(text.c_str());
  if (results.type == json::jtype::not_valid) {
    throw std::runtime_error("parse_value refuses the text");
  }
  benchmark::DoNotOptimize(results.value.data());
}

/// Made once, as Google Benchmark calls a benchmark several times.
const std::string& content(const Text& text) {
  static std::map<std::string, std::string> made;
  std::string& known = made[text.name];
  if (known.empty()) {
    known = text.make();
  }
  return known;
}

void add(const std::string& operation, const Text& text, const char* who, Function function) {
  const std::string name = operation + "/" + text.name + "/" + who;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    const std::string& input = content(text);
    for (auto _ : state) {
      function(input);
    }
    state.counters["bytes"] = static_cast<double>(input.size());
  });
}

void addTexts() {
  for (const Text& text : texts()) {
    for (const Library& library : libraries()) {
      if (const Function parse = text.deep ? library.parseDeep : library.parse) {
        add("parse", text, library.name, parse);
        if (!library.keepsDocument) {
          add("read", text, library.name, parse);
        }
      }
    }
    add("read", text, "push", push);
    add("read", text, "parse_value", parseValue);
  }
}

}  // namespace

int main(int argumentCount, char** arguments) {
  // Memory once had stays: otherwise it depends on the benchmarks before whether one gets its memory from the system
  // anew at each iteration, which costs as much as the parsing of a large text.
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
  addTexts();
  addOperations();
  benchmark::Initialize(&argumentCount, arguments);
  if (benchmark::ReportUnrecognizedArguments(argumentCount, arguments)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
}
