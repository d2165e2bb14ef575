#include "support/JsonReaderModel.h"

#include <cctype>
#include <stdexcept>

namespace test {
namespace {

using json::jtype;
using json::reader;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isHexDigit(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

char afterFirstDigit(char digit) {
  return digit == '0' ? 2 : 3;
}

std::logic_error unexpectedReturn() {
  return std::logic_error("Unexpected return");
}

}  // namespace

jtype modelTypeOf(char first) {
  if (first == '"') {
    return jtype::jstring;
  }
  if (first == '-' || isDigit(first)) {
    return jtype::jnumber;
  }
  if (first == '{') {
    return jtype::jobject;
  }
  if (first == '[') {
    return jtype::jarray;
  }
  if (first == 't' || first == 'f') {
    return jtype::jbool;
  }
  return first == 'n' ? jtype::jnull : jtype::not_valid;
}

bool modelIsSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::unique_ptr<ReaderModel> ReaderModel::clone() const {
  auto copy = std::make_unique<ReaderModel>();
  copyInto(*copy);
  return copy;
}

void ReaderModel::copyInto(ReaderModel& copy) const {
  copy.buffer = buffer;
  copy.subReader = subReader ? subReader->clone() : nullptr;
  copy.state = state;
}

void ReaderModel::clear() {
  buffer.clear();
  subReader.reset();
  state = 0;
}

jtype ReaderModel::type() const {
  return buffer.empty() ? jtype::not_valid : modelTypeOf(buffer[0]);
}

bool ReaderModel::isValid() const {
  switch (type()) {
    case jtype::jstring:
      return state == 8;
    case jtype::jnumber:
      return state == 2 || state == 3 || state == 5 || state == 8;
    case jtype::jobject:
    case jtype::jarray:
      return state == 4;
    case jtype::jbool:
      return buffer == "true" || buffer == "false";
    case jtype::jnull:
      return buffer == "null";
    case jtype::not_valid:
      return false;
  }
  throw unexpectedReturn();
}

std::string ReaderModel::readout() const {
  return buffer;
}

ReaderModel::Answer ReaderModel::push(char c) {
  if (buffer.empty() && modelIsSpace(c)) {
    return reader::ACCEPTED;
  }
  switch (modelTypeOf(buffer.empty() ? c : buffer[0])) {
    case jtype::jstring:
      return pushString(c);
    case jtype::jnumber:
      return pushNumber(c);
    case jtype::jobject:
      return pushObject(c);
    case jtype::jarray:
      return pushArray(c);
    case jtype::jbool:
      return pushBoolean(c);
    case jtype::jnull:
      return pushNull(c);
    case jtype::not_valid:
      return reader::REJECTED;
  }
  throw unexpectedReturn();
}

ReaderModel::Answer ReaderModel::accept(char c) {
  buffer += c;
  return reader::ACCEPTED;
}

ReaderModel::Answer ReaderModel::acceptInto(char newState, char c) {
  state = newState;
  return accept(c);
}

ReaderModel::Answer ReaderModel::pushString(char c) {
  switch (state) {
    case 0:
      return c == '"' ? acceptInto(1, c) : reader::REJECTED;
    case 1:
      state = 2;
      return pushString(c);
    case 2:
      if (c == '"') {
        return acceptInto(8, c);
      }
      return c == '\\' ? acceptInto(3, c) : accept(c);
    case 3:
      if (c == '"' || c == '\\' || c == 'b' || c == 'f' || c == 'n' || c == 'r' || c == 't') {
        return acceptInto(2, c);
      }
      return c == 'u' ? acceptInto(4, c) : reader::REJECTED;
    case 4:
      return isHexDigit(c) ? acceptInto(5, c) : reader::REJECTED;
    case 5:
      return isHexDigit(c) ? acceptInto(6, c) : reader::REJECTED;
    case 6:
      return isHexDigit(c) ? acceptInto(7, c) : reader::REJECTED;
    case 7:
      return isHexDigit(c) ? acceptInto(2, c) : reader::REJECTED;
    case 8:
      return reader::REJECTED;
    default:
      throw unexpectedReturn();
  }
}

ReaderModel::Answer ReaderModel::pushNumber(char c) {
  const bool exponentMark = c == 'e' || c == 'E';
  switch (state) {
    case 0:
      if (c == '-') {
        return acceptInto(1, c);
      }
      return isDigit(c) ? acceptInto(afterFirstDigit(c), c) : reader::REJECTED;
    case 1:
      return isDigit(c) ? acceptInto(afterFirstDigit(c), c) : reader::REJECTED;
    case 2:
      if (exponentMark) {
        return acceptInto(6, c);
      }
      return c == '.' ? acceptInto(4, c) : reader::REJECTED;
    case 3:
      if (isDigit(c)) {
        return accept(c);
      }
      if (exponentMark) {
        return acceptInto(6, c);
      }
      return c == '.' ? acceptInto(4, c) : reader::REJECTED;
    case 4:
      return isDigit(c) ? acceptInto(5, c) : reader::REJECTED;
    case 5:
      if (isDigit(c)) {
        return accept(c);
      }
      return exponentMark ? acceptInto(6, c) : reader::REJECTED;
    case 6:
      if (c == '+' || c == '-') {
        return acceptInto(7, c);
      }
      return isDigit(c) ? acceptInto(8, c) : reader::REJECTED;
    case 7:
      return isDigit(c) ? acceptInto(8, c) : reader::REJECTED;
    case 8:
      return isDigit(c) ? accept(c) : reader::REJECTED;
    default:
      throw unexpectedReturn();
  }
}

ReaderModel::Answer ReaderModel::pushBoolean(char c) {
  if (buffer.empty()) {
    return c == 't' || c == 'f' ? accept(c) : reader::REJECTED;
  }
  if (buffer[0] != 't' && buffer[0] != 'f') {
    throw json::parsing_error("Unexpected state");
  }
  const std::string word = buffer[0] == 't' ? "true" : "false";
  return buffer.length() < word.length() && c == word[buffer.length()] ? accept(c) : reader::REJECTED;
}

ReaderModel::Answer ReaderModel::pushNull(char c) {
  switch (buffer.length()) {
    case 0:
      return c == 'n' ? accept(c) : reader::REJECTED;
    case 1:
      return c == 'u' ? accept(c) : reader::REJECTED;
    case 2:
    case 3:
      return c == 'l' ? accept(c) : reader::REJECTED;
    case 4:
      return reader::REJECTED;
    default:
      throw json::parsing_error("Unexpected state");
  }
}

ReaderModel::Answer ReaderModel::pushArray(char c) {
  switch (state) {
    case 0:
      return c == '[' ? acceptInto(1, c) : reader::REJECTED;
    case 1:
      if (modelIsSpace(c)) {
        return reader::WHITESPACE;
      }
      return c == ']' ? acceptInto(4, c) : startElement(c);
    case 2:
      return pushIntoElement(c);
    case 3:
      return modelIsSpace(c) ? reader::WHITESPACE : startElement(c);
    case 4:
      return reader::REJECTED;
    default:
      throw unexpectedReturn();
  }
}

ReaderModel::Answer ReaderModel::startElement(char c) {
  if (modelTypeOf(c) == jtype::not_valid) {
    return reader::REJECTED;
  }
  subReader = std::make_unique<ReaderModel>();
  state = 2;
  return pushIntoElement(c);
}

ReaderModel::Answer ReaderModel::pushIntoElement(char c) {
  if (subReader->isValid() && modelIsSpace(c)) {
    return reader::WHITESPACE;
  }
  const Answer answer = subReader->push(c);
  if (answer != reader::REJECTED) {
    return answer;
  }
  if ((c == ',' || c == ']') && subReader->isValid()) {
    return finishChild(c);
  }
  return reader::REJECTED;
}

ReaderModel::Answer ReaderModel::pushObject(char c) {
  switch (state) {
    case 0:
      return c == '{' ? acceptInto(1, c) : reader::REJECTED;
    case 1:
      return c == '}' ? acceptInto(4, c) : startEntry(c);
    case 2:
      return pushIntoEntry(c);
    case 3:
      return startEntry(c);
    case 4:
      return reader::REJECTED;
    default:
      throw unexpectedReturn();
  }
}

ReaderModel::Answer ReaderModel::startEntry(char c) {
  if (modelIsSpace(c)) {
    return reader::WHITESPACE;
  }
  if (c != '"') {
    return reader::REJECTED;
  }
  subReader = std::make_unique<KvpReaderModel>();
  subReader->push(c);
  state = 2;
  return reader::ACCEPTED;
}

ReaderModel::Answer ReaderModel::pushIntoEntry(char c) {
  const Answer answer = subReader->push(c);
  if (answer != reader::REJECTED) {
    return answer;
  }
  if (!subReader->isValid()) {
    return reader::REJECTED;
  }
  if (modelIsSpace(c)) {
    return reader::WHITESPACE;
  }
  return c == ',' || c == '}' ? finishChild(c) : reader::REJECTED;
}

/// Moves the finished child's text into this level's, followed by the comma or the closing bracket.
ReaderModel::Answer ReaderModel::finishChild(char c) {
  buffer += subReader->readout();
  subReader.reset();
  return acceptInto(c == ',' ? 3 : 4, c);
}

std::unique_ptr<ReaderModel> KvpReaderModel::clone() const {
  auto copy = std::make_unique<KvpReaderModel>();
  copyInto(*copy);
  copy->key = key->clone();
  copy->colonRead = colonRead;
  return copy;
}

void KvpReaderModel::clear() {
  ReaderModel::clear();
  key->clear();
  colonRead = false;
}

ReaderModel::Answer KvpReaderModel::push(char c) {
  if (key->readout().empty()) {
    if (modelIsSpace(c)) {
      return reader::WHITESPACE;
    }
    if (c != '"') {
      return reader::REJECTED;
    }
    key->push(c);
    return reader::ACCEPTED;
  }
  if (!key->isValid()) {
    return key->push(c);
  }
  if (!colonRead) {
    if (modelIsSpace(c)) {
      return reader::WHITESPACE;
    }
    if (c != ':') {
      return reader::REJECTED;
    }
    colonRead = true;
    return reader::ACCEPTED;
  }
  if (buffer.empty() && modelIsSpace(c)) {
    return reader::WHITESPACE;
  }
  return ReaderModel::push(c);
}

bool KvpReaderModel::isValid() const {
  return ReaderModel::isValid() && key->isValid();
}

std::string KvpReaderModel::readout() const {
  return key->readout() + ":" + buffer;
}

}  // namespace test
