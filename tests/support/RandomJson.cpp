#include "support/RandomJson.h"

#include <cstdlib>
#include <iostream>

namespace test {
namespace {

std::uint64_t chooseSeed() {
  const char* given = std::getenv("SSO_TEST_SEED");
  return given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
}

}  // namespace

RandomJson::RandomJson() : usedSeed(chooseSeed()), engine(usedSeed) {
  std::cout << "SSO_TEST_SEED=" << usedSeed << std::endl;
}

std::size_t RandomJson::rounds(std::size_t usual) {
  const char* given = std::getenv("SSO_TEST_ROUNDS");
  return given != nullptr ? static_cast<std::size_t>(std::strtoull(given, nullptr, 10)) : usual;
}

std::string RandomJson::text() {
  switch (below(4)) {
    case 0:
      return document(4);
    case 1:
      return noise();
    default:
      return damaged(document(3));
  }
}

std::string RandomJson::document(unsigned depth) {
  switch (below(depth == 0 ? 5 : 9)) {
    case 0:
      return stringLiteral();
    case 1:
    case 2:
      return number();
    case 3:
      return below(2) == 0 ? "true" : "false";
    case 4:
      return "null";
    case 5:
    case 6:
      return container(true, depth - 1);
    default:
      return container(false, depth - 1);
  }
}

std::string RandomJson::damaged(std::string text) {
  for (std::size_t errors = 1 + below(3); errors > 0 && !text.empty(); --errors) {
    const std::size_t position = below(text.size());
    switch (below(5)) {
      case 0:
        text[position] = character();
        break;
      case 1:
        text.insert(position, 1, text[position]);
        break;
      case 2:
        text.insert(position, 1, character());
        break;
      case 3:
        text.erase(position, 1);
        break;
      default:
        text.resize(position);
    }
  }
  return text;
}

std::string RandomJson::noise() {
  static const std::string starts = "[{\"-1tfn";
  std::string text(1, starts[below(starts.size())]);
  for (std::size_t length = below(12); length > 0; --length) {
    text += character();
  }
  return text;
}

/// Mostly characters that mean something to a reader, now and then any other byte.
char RandomJson::character() {
  static const std::string meaningful = "[]{},:\"\"\\ \t\n\v01295.-+eEtruefalsn/bu aAxf";
  const std::size_t index = below(meaningful.size() + 2);
  return index < meaningful.size() ? meaningful[index] : static_cast<char>(1 + below(255));
}

std::string RandomJson::space() {
  static const std::string spaces = " \t\n\r\v\f";
  std::string text;
  while (below(4) == 0) {
    text += spaces[below(spaces.size())];
  }
  return text;
}

std::string RandomJson::stringLiteral() {
  static const char* const pieces[] = {"a",       "b c", "\\n", "\\\"",     "\\\\", "\\u00e9",
                                       "\\u0041", ",",   "]",   "\xc3\xa9", "\t"};
  std::string text = "\"";
  for (std::size_t count = below(4); count > 0; --count) {
    text += pieces[below(std::size(pieces))];
  }
  return text + "\"";
}

std::string RandomJson::digits() {
  std::string text;
  do {
    text += static_cast<char>('0' + below(10));
  } while (below(2) == 0);
  return text;
}

std::string RandomJson::number() {
  static const char* const marks[] = {"e", "E", "e+", "E-"};
  std::string text = below(4) == 0 ? "-" : "";
  text += below(4) == 0 ? std::string("0") : static_cast<char>('1' + below(9)) + digits();
  if (below(3) == 0) {
    text += "." + digits();
  }
  if (below(4) == 0) {
    text += marks[below(std::size(marks))] + digits();
  }
  return text;
}

std::string RandomJson::container(bool array, unsigned depth) {
  std::string text = (array ? "[" : "{") + space();
  for (std::size_t count = below(4); count > 0; --count) {
    if (!array) {
      text += stringLiteral() + space() + ":" + space();
    }
    text += document(depth) + space() + (count > 1 ? "," + space() : "");
  }
  return text + (array ? "]" : "}");
}

}  // namespace test
