#include "json/Operations.h"

#include <benchmark/benchmark.h>
#include <picojson.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <nlohmann/json.hpp>
#include <string>

#include "json/Texts.h"
#include "json/json.h"

namespace {

json::jobject parsedHere(const std::string& text) {
  return json::jobject::parse(text);
}

rapidjson::Document parsedByRapid(const std::string& text) {
  rapidjson::Document document;
  document.Parse(text.c_str());
  return document;
}

nlohmann::json parsedByNlohmann(const std::string& text) {
  return nlohmann::json::parse(text);
}

picojson::value parsedByPicojson(const std::string& text) {
  picojson::value document;
  picojson::parse(document, text);
  return document;
}

std::string writtenByRapid(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

/// Times work(prepare(text)), the preparation aside. What the work returns is destroyed in the time.
template <typename Prepare, typename Work>
void add(const std::string& name, const std::string& text, Prepare prepare, Work work) {
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    const auto prepared = prepare(text);
    for (auto _ : state) {
      benchmark::DoNotOptimize(work(prepared));
    }
  });
}

void addWriting(const std::string& setting, const std::string& text) {
  const std::string name = "as_string/" + setting + "/";
  add(name + "this", text, parsedHere, [](const auto& document) { return document.as_string(); });
  add(name + "RapidJSON DOM", text, parsedByRapid, [](const auto& document) { return writtenByRapid(document); });
  add(name + "nlohmann-json", text, parsedByNlohmann, [](const auto& document) { return document.dump(); });
  add(name + "picojson", text, parsedByPicojson, [](const auto& document) { return document.serialize(); });
}

void addLookup(const std::string& setting, const std::string& key) {
  const std::string name = "has_key/" + setting + "/";
  const std::string text = ascendingKeys(20);
  add(name + "this", text, parsedHere, [=](const auto& document) { return document.has_key(key); });
  add(name + "RapidJSON DOM", text, parsedByRapid,
      [=](const auto& document) { return document.HasMember(key.c_str()); });
  add(name + "nlohmann-json", text, parsedByNlohmann, [=](const auto& document) { return document.contains(key); });
  add(name + "picojson", text, parsedByPicojson, [=](const auto& document) { return document.contains(key); });
}

void addMemberText(const std::string& key) {
  const std::string name = "as_string of a member/" + key + "/";
  const std::string text = tokenReply(1024);
  add(name + "this", text, parsedHere, [=](const auto& document) { return document[key].as_string(); });
  add(name + "RapidJSON DOM", text, parsedByRapid, [=](const auto& document) {
    const rapidjson::Value& member = document[key.c_str()];
    return std::string(member.GetString(), member.GetStringLength());
  });
  add(name + "nlohmann-json", text, parsedByNlohmann,
      [=](const auto& document) { return document[key].template get<std::string>(); });
  add(name + "picojson", text, parsedByPicojson,
      [=](const auto& document) { return document.get(key).template get<std::string>(); });
}

/// Whether a member is a string, asked of one that is.
void addTypeTest(const std::string& key) {
  const std::string name = "is_string/" + key + "/";
  const std::string text = tokenReply(1024);
  add(name + "this", text, parsedHere, [=](const auto& document) { return document[key].is_string(); });
  add(name + "RapidJSON DOM", text, parsedByRapid,
      [=](const auto& document) { return document[key.c_str()].IsString(); });
  add(name + "nlohmann-json", text, parsedByNlohmann, [=](const auto& document) { return document[key].is_string(); });
  add(name + "picojson", text, parsedByPicojson,
      [=](const auto& document) { return document.get(key).template is<std::string>(); });
}

/// Whether a member is a number, asked of one that is.
void addNumberTest(const std::string& key) {
  const std::string name = "is_number/" + key + "/";
  const std::string text = tokenReply(1024);
  add(name + "this", text, parsedHere, [=](const auto& document) { return document[key].is_number(); });
  add(name + "RapidJSON DOM", text, parsedByRapid,
      [=](const auto& document) { return document[key.c_str()].IsNumber(); });
  add(name + "nlohmann-json", text, parsedByNlohmann, [=](const auto& document) { return document[key].is_number(); });
  add(name + "picojson", text, parsedByPicojson,
      [=](const auto& document) { return document.get(key).template is<double>(); });
}

void addStrings(const std::string& setting, const std::string& plain) {
  const auto same = [](const std::string& text) { return text; };
  const std::string literal = json::escape_string(plain.c_str());
  const std::string decode = "decode_string/" + setting + "/";
  add(decode + "this", literal, same, [](const auto& text) { return json::decode_string(text.c_str()); });
  add(decode + "RapidJSON DOM", literal, same, [](const auto& text) {
    const rapidjson::Document document = parsedByRapid(text);
    return std::string(document.GetString(), document.GetStringLength());
  });
  add(decode + "nlohmann-json", literal, same,
      [](const auto& text) { return parsedByNlohmann(text).template get<std::string>(); });

  const std::string escape = "escape_string/" + setting + "/";
  add(escape + "this", plain, same, [](const auto& text) { return json::escape_string(text.c_str()); });
  add(escape + "RapidJSON DOM", plain, same, [](const auto& text) {
    return writtenByRapid(rapidjson::Value(rapidjson::StringRef(text.c_str(), text.size())));
  });
  add(escape + "nlohmann-json", plain, same, [](const auto& text) { return nlohmann::json(text).dump(); });
}

std::string everyEighthSpecial(std::string text) {
  for (std::size_t index = 0; index < text.size(); index += 8) {
    text[index] = "\"\\\n\t/"[index / 8 % 5];
  }
  return text;
}

}  // namespace

void addOperations() {
  addWriting("token reply 8 KiB", tokenReply(8192));
  addWriting("discovery 64 KiB", discoveryDocument(65536));
  addLookup("first of 20", "key-000000");
  addLookup("last of 20", "key-000019");
  addLookup("none of 20", "key-000020");
  addMemberText("token_type");
  addMemberText("access_token");
  addTypeTest("token_type");
  addTypeTest("access_token");
  addNumberTest("expires_in");
  const std::string token = parsedHere(tokenReply(2048))["access_token"].as_string().substr(0, 1024);
  addStrings("token of 1 KiB", token);
  addStrings("every 8th byte of 1 KiB special", everyEighthSpecial(token));
}
