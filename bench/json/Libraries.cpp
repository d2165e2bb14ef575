#include "json/Libraries.h"

#include <benchmark/benchmark.h>
#include <picojson.h>
#include <rapidjson/document.h>
#include <rapidjson/reader.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "json/json.h"

namespace {

void check(bool accepted, const char* library) {
  if (!accepted) {
    throw std::runtime_error(std::string(library) + " refuses the text");
  }
}

/// Reads the whole text, and keeps the values of the outermost container as text.
void parseHere(const std::string& text) {
  const json::jobject document = json::jobject::parse(text);
  benchmark::DoNotOptimize(document.size());
}

template <unsigned FLAGS>
void parseByRapidDom(const std::string& text) {
  rapidjson::Document document;
  document.Parse<FLAGS>(text.c_str());
  check(!document.HasParseError(), "RapidJSON");
  benchmark::DoNotOptimize(document);
}

template <unsigned FLAGS>
void parseByRapidSax(const std::string& text) {
  rapidjson::StringStream stream(text.c_str());
  rapidjson::BaseReaderHandler<> handler;
  check(!rapidjson::Reader().Parse<FLAGS>(stream, handler).IsError(), "RapidJSON");
}

void parseByNlohmann(const std::string& text) {
  const nlohmann::json document = nlohmann::json::parse(text);
  benchmark::DoNotOptimize(document.size());
}

/// Like picojson::parse, which allows a depth of 100 only.
void parseByPicojson(const std::string& text) {
  constexpr std::size_t DEPTH = 2000;
  picojson::value document;
  picojson::default_parse_context context(&document, DEPTH);
  std::string error;
  picojson::_parse(context, text.begin(), text.end(), &error);
  check(error.empty(), "picojson");
  benchmark::DoNotOptimize(document);
}

}  // namespace

const std::vector<Library>& libraries() {
  using namespace rapidjson;
  static const std::vector<Library> ALL = {
      {"jobject::parse", true, parseHere, parseHere},
      {"RapidJSON DOM", true, parseByRapidDom<kParseDefaultFlags>, parseByRapidDom<kParseIterativeFlag>},
      {"RapidJSON SAX", false, parseByRapidSax<kParseDefaultFlags>, parseByRapidSax<kParseIterativeFlag>},
      {"nlohmann-json", true, parseByNlohmann, parseByNlohmann},
      {"picojson", true, parseByPicojson, nullptr},
  };
  return ALL;
}
