// The client's JSON compared with the service's own library, which is written independently of it.

#include <gtest/gtest.h>

#include <string>

#include "client/JsonText.h"
#include "json/json.h"
#include "support/JsonCorpus.h"
#include "support/RandomJson.h"

namespace {

using test::JsonText;

/// What the service prints stands in a reply as it is, wherever the reply has white space.
void expectTakenAsItIs(const std::string& printed) {
  const JsonText alone(printed);
  EXPECT_TRUE(alone.isValue()) << printed;
  EXPECT_EQ(alone.valueText(), printed);
  for (const std::string& reply : {"{\"value\":" + printed + "}", "{\"before\":" + printed + ",\"value\": " + printed +
                                                                      " ,\"behind\":" + printed + "}"}) {
    const JsonText text(reply);
    ASSERT_TRUE(text.isValue()) << reply;
    EXPECT_EQ(text.member("value"), printed) << reply;
  }
}

/// Returns whether the service takes the text as a document.
bool expectDocumentTaken(const std::string& text) {
  try {
    expectTakenAsItIs(json::jobject::parse(text).as_string());
  } catch (const json::parsing_error&) {
    return false;
  }
  return true;
}

/// What the client takes, the service takes too, but for "\/", which it does not know.
void expectTakenByTheService(const std::string& text) {
  if (!JsonText(text).isValue() || text.find("\\/") != std::string::npos) {
    return;
  }
  const json::parse_results results = json::parse_value(text.c_str());
  EXPECT_NE(results.type, json::jtype::not_valid) << text;
  EXPECT_EQ(std::string(results.remainder).find_first_not_of(" \t\r\n"), std::string::npos) << text;
}

std::string printedValue(const std::string& text) {
  try {
    return json::parse_value(text.c_str()).value;
  } catch (const json::parsing_error&) {
    return "";  // nothing but white space
  }
}

TEST(ClientJsonAndTheServices, EveryValueOfTheCorpusIsTakenAsTheServicePrintsIt) {
  std::size_t documents = 0;
  for (const test::JsonSample& sample : test::jsonSamples()) {
    if (*sample.value != '\0') {
      expectTakenAsItIs(sample.value);
    }
    documents += expectDocumentTaken(sample.text) ? 1U : 0U;
    expectTakenByTheService(sample.text);
  }
  EXPECT_GT(documents, 50U);
}

TEST(ClientJsonAndTheServices, RandomTextsAreTakenAsTheServicePrintsThem) {
  test::RandomJson random;
  for (std::size_t round = test::RandomJson::rounds(20000); round > 0 && !HasFailure(); --round) {
    SCOPED_TRACE("SSO_TEST_SEED=" + std::to_string(random.seed()));
    const std::string text = random.text();
    expectTakenByTheService(text);
    expectDocumentTaken(text);
    const std::string value = printedValue(text);
    if (!value.empty()) {
      expectTakenAsItIs(value);
    }
  }
}

TEST(ClientJsonAndTheServices, TextsThatTheServiceWritesAreReadBack) {
  test::RandomJson random;
  for (std::size_t round = test::RandomJson::rounds(5000); round > 0 && !HasFailure(); --round) {
    SCOPED_TRACE("SSO_TEST_SEED=" + std::to_string(random.seed()));
    std::string text;
    for (std::size_t length = random.below(40); length > 0; --length) {
      text += static_cast<char>(1 + random.below(255));
    }
    json::jobject reply;
    reply["status"] = "error";
    reply["message"] = text;
    const JsonText written(reply.as_string());
    ssoclient_json message{};
    ASSERT_TRUE(written.isValue()) << reply.as_string();
    ASSERT_EQ(ssoclient_json_member(written.value(), "message", &message), 1U);
    EXPECT_EQ(test::decoded(message), text);
    EXPECT_TRUE(ssoclient_json_equals(message, text.c_str()));
  }
}

}  // namespace
