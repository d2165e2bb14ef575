// The input is the payload of a reply. What the client library makes of it is compared with the rules of the protocol
// applied to the literal reading, and what the service's JSON library writes has to come through.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "LiteralJson.h"
#include "Require.h"
#include "json/json.h"

extern "C" {
#include "json.h"
#include "reply.h"
}

namespace {

using fuzz::LiteralJson;
using fuzz::require;
using fuzz::Verdict;

struct Answer {
  ssoclient_status status;
  std::optional<std::string> text;
};

struct Result {
  ssoclient_result kind;
  const char* key;
};

constexpr Result RESULTS[] = {{SSOCLIENT_RESULT_NONE, ""},
                              {SSOCLIENT_RESULT_TOKEN, "token"},
                              {SSOCLIENT_RESULT_CERTIFICATE_ID, "certificate_id"},
                              {SSOCLIENT_RESULT_DISCOVERY_DATA, "discovery_data"}};

const Answer MALFORMED = {SSOCLIENT_MALFORMED_REPLY, std::nullopt};

/// Asks the client library.
Answer readReply(std::string_view payload, ssoclient_result wanted) {
  char unset = '\0';
  char* text = &unset;
  const ssoclient_status status = ssoclient_read_reply(payload.data(), payload.size(), wanted, &text);
  require(text != &unset, "the text is always set");
  const Answer answer = {status, text == nullptr ? std::nullopt : std::make_optional<std::string>(text)};
  ssoclient_free(text);
  return answer;
}

bool isObject(const LiteralJson& value) {
  return value.text.front() == '{';
}

/// The only member of this name, or a null pointer.
const LiteralJson* onlyMember(const LiteralJson& object, const char* name) {
  const LiteralJson* found = nullptr;
  for (std::size_t i = 0; isObject(object) && i < object.parts.size(); i += 2) {
    if (object.parts[i].plain == name) {
      if (found != nullptr) {
        return nullptr;
      }
      found = &object.parts[i + 1];
    }
  }
  return found;
}

Answer withString(ssoclient_status status, const LiteralJson* string) {
  return string != nullptr && string->plain ? Answer{status, string->plain} : MALFORMED;
}

/// What the protocol says about a reply.
Answer expectedAnswer(const LiteralJson& reply, const Result& wanted) {
  const LiteralJson* const status = onlyMember(reply, "status");
  if (status != nullptr && status->plain == "error") {
    return withString(SSOCLIENT_REFUSED, onlyMember(reply, "message"));
  }
  if (status == nullptr || status->plain != "ok") {
    return MALFORMED;
  }
  if (wanted.kind == SSOCLIENT_RESULT_NONE) {
    return {SSOCLIENT_OK, std::nullopt};
  }
  const LiteralJson* const result = onlyMember(reply, wanted.key);
  if (wanted.kind != SSOCLIENT_RESULT_DISCOVERY_DATA) {
    return result != nullptr && result->plain == "" ? MALFORMED : withString(SSOCLIENT_OK, result);
  }
  return result != nullptr && isObject(*result) ? Answer{SSOCLIENT_OK, std::string(result->text)} : MALFORMED;
}

/// What holds at any depth.
void checkAnswer(std::string_view payload, ssoclient_result wanted, const Answer& answer) {
  const auto [status, text] = answer;
  require(status == SSOCLIENT_OK || status == SSOCLIENT_REFUSED || status == SSOCLIENT_MALFORMED_REPLY,
          "the status is one of the three that a payload can lead to");
  const bool hasText = status == SSOCLIENT_REFUSED || (status == SSOCLIENT_OK && wanted != SSOCLIENT_RESULT_NONE);
  require(text.has_value() == hasText, "there is a text where there is a result or a message");
  require(!text || text->size() <= payload.size(), "no text is longer than the payload");
  if (status == SSOCLIENT_OK && wanted == SSOCLIENT_RESULT_DISCOVERY_DATA) {
    require(payload.find(*text) != std::string_view::npos, "the discovery data stands in the payload");
    require(text->front() == '{' && text->back() == '}', "the discovery data is an object");
  }
}

void checkAnswers(std::string_view payload, Verdict verdict, const LiteralJson& literal) {
  const bool holdsNul = payload.find('\0') != std::string_view::npos;
  for (const Result& wanted : RESULTS) {
    const Answer answer = readReply(payload, wanted.kind);
    checkAnswer(payload, wanted.kind, answer);
    if (verdict == Verdict::TOO_DEEP) {
      continue;
    }
    const Answer expected = verdict == Verdict::INVALID || holdsNul ? MALFORMED : expectedAnswer(literal, wanted);
    require(answer.status == expected.status, "the status is the one that the protocol says");
    require(answer.text == expected.text, "the text is the one that the protocol says");
  }
}

std::string_view textOf(const ssoclient_json& value) {
  return {value.begin, static_cast<std::size_t>(value.end - value.begin)};
}

/// Parses a text with nothing behind the value.
bool parseWhole(std::string_view text, ssoclient_json& value) {
  const char* rest = nullptr;
  return ssoclient_json_parse(text.data(), text.size(), &value, &rest) == SSOCLIENT_OK &&
         rest == text.data() + text.size();
}

void checkString(const ssoclient_json& string, const LiteralJson& literal) {
  // No larger than allowed, so that the address sanitizer sees a longer one.
  const std::unique_ptr<char[]> buffer(new char[literal.text.size()]);
  const bool decoded = ssoclient_json_decode(string, buffer.get());
  require(decoded == literal.plain.has_value(), "a string is decoded if it can be a C string");
  if (decoded) {
    require(buffer.get() == *literal.plain, "a string is decoded to what it says");
    require(ssoclient_json_equals(string, buffer.get()), "a string equals what it is decoded to");
    require(!ssoclient_json_equals(string, (*literal.plain + "x").c_str()), "a string equals no longer one");
  }
  if (decoded && !literal.plain->empty()) {
    std::string other = *literal.plain;
    other.back() ^= 1;
    require(!ssoclient_json_equals(string, other.c_str()), "a string equals no other one");
    other.pop_back();
    require(!ssoclient_json_equals(string, other.c_str()), "a string equals no shorter one");
  }
  require(decoded || !ssoclient_json_equals(string, ""), "a string that cannot be decoded equals none");
}

/// Looks the last member up.
void checkMember(const ssoclient_json& value, const LiteralJson& literal) {
  ssoclient_json found;
  const std::size_t size = literal.parts.size();
  if (!isObject(literal) || size == 0) {
    require(ssoclient_json_member(value, "", &found) == 0, "what is no object, or empty, has no member");
    return;
  }
  const std::optional<std::string>& name = literal.parts[size - 2].plain;
  if (!name) {
    return;
  }
  std::size_t count = 0;
  for (std::size_t i = 0; i < size; i += 2) {
    if (literal.parts[i].plain == name) {
      ++count;
    }
  }
  require(ssoclient_json_member(value, name->c_str(), &found) == count, "all members of a name are found");
  require(textOf(found) == literal.parts[size - 1].text, "the last member of a name is given");
}

void checkFirstElement(const ssoclient_json& value, const LiteralJson& literal) {
  ssoclient_json found;
  const bool expected = literal.text.front() == '[' && !literal.parts.empty();
  require(ssoclient_json_first_element(value, &found) == expected, "an array has a first element unless it is empty");
  require(!expected || textOf(found) == literal.parts.front().text, "the first element is given");
}

/// The tests of a value's kind, by its first character.
void checkKind(const ssoclient_json& value, char first) {
  require(ssoclient_json_is_object(value) == (first == '{'), "an object is known as one");
  require(ssoclient_json_is_array(value) == (first == '['), "an array is known as one");
  require(ssoclient_json_is_string(value) == (first == '"'), "a string is known as one");
  const bool isNumber = first == '-' || (first >= '0' && first <= '9');
  require(ssoclient_json_is_number(value) == isNumber, "a number is known as one");
}

/// Compares all values in a valid text with their literal reading.
void checkValue(const LiteralJson& literal) {
  ssoclient_json value;
  require(parseWhole(literal.text, value) && textOf(value) == literal.text, "a value is parsed as it stands");
  checkKind(value, literal.text.front());
  checkMember(value, literal);
  checkFirstElement(value, literal);
  if (ssoclient_json_is_string(value)) {
    checkString(value, literal);
  }
  for (const LiteralJson& part : literal.parts) {
    checkValue(part);
  }
}

void checkParse(std::string_view payload, Verdict verdict, const LiteralJson& literal) {
  ssoclient_json value;
  const bool valid = parseWhole(payload, value);
  if (verdict != Verdict::TOO_DEEP) {
    require(valid == (verdict == Verdict::VALID), "what is valid by the grammar is parsed, and nothing else");
  }
  if (verdict == Verdict::VALID) {
    require(textOf(value) == literal.text, "the value is the text without white space around it");
    checkValue(literal);
  }
}

/// What the service would send comes through: the document that it reads from the payload as discovery data, and the
/// payload itself as a token.
void checkService(const std::string& payload) {
  json::jobject reply;
  reply["status"] = "ok";
  reply["token"] = payload;
  const std::string token = readReply(reply.as_string(), SSOCLIENT_RESULT_TOKEN).text.value_or("");
  require(token == payload.c_str(), "a token comes through");
  try {
    const json::jobject document = json::jobject::parse(payload);
    if (document.is_array()) {
      return;
    }
    reply["discovery_data"] = document;
    const Answer data = readReply(reply.as_string(), SSOCLIENT_RESULT_DISCOVERY_DATA);
    require(data.text == document.as_string(), "discovery data comes through byte by byte");
  } catch (const json::parsing_error&) {
    return;  // the service does not read this text, so it does not send it
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  LiteralJson literal;
  const Verdict verdict = fuzz::readLiterally(payload, literal);
  checkParse(payload, verdict, literal);
  checkAnswers(payload, verdict, literal);
  checkService(std::string(payload));
  return 0;
}
