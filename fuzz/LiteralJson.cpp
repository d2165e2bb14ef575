#include "LiteralJson.h"

#include <algorithm>
#include <cstddef>

namespace fuzz {
namespace {

/// A piece of a string: a byte as BYTE + its value, a "\u" escape as the UTF-16 code unit that it names.
using Unit = unsigned;
constexpr Unit BYTE = 0x10000;

bool isHighSurrogate(Unit unit) {
  return unit >= 0xd800 && unit <= 0xdbff;
}

bool isLowSurrogate(Unit unit) {
  return unit >= 0xdc00 && unit <= 0xdfff;
}

std::string utf8(unsigned codePoint) {
  const auto tail = [codePoint](int shift) { return static_cast<char>(0x80 | (codePoint >> shift & 0x3f)); };
  const auto lead = [codePoint](unsigned mark, int shift) { return static_cast<char>(mark | codePoint >> shift); };
  if (codePoint < 0x80) {
    return {lead(0, 0)};
  }
  if (codePoint < 0x800) {
    return {lead(0xc0, 6), tail(0)};
  }
  if (codePoint < 0x10000) {
    return {lead(0xe0, 12), tail(6), tail(0)};
  }
  return {lead(0xf0, 18), tail(12), tail(6), tail(0)};
}

std::optional<std::string> plainText(const std::vector<Unit>& units) {
  std::string plain;
  for (std::size_t i = 0; i < units.size(); ++i) {
    const Unit unit = units[i];
    const Unit next = i + 1 < units.size() ? units[i + 1] : 0;
    if (unit == 0 || unit == BYTE) {
      return std::nullopt;
    }
    if (unit > BYTE) {
      plain += static_cast<char>(unit - BYTE);
    } else if (isHighSurrogate(unit) && isLowSurrogate(next)) {
      plain += utf8(0x10000 + (unit - 0xd800) * 0x400 + (next - 0xdc00));
      ++i;
    } else if (isHighSurrogate(unit) || isLowSurrogate(unit)) {
      return std::nullopt;
    } else {
      plain += utf8(unit);
    }
  }
  return plain;
}

/// Each function takes what it is named after off the rest of the text, or returns false.
class Grammar {
 public:
  explicit Grammar(std::string_view text) : rest(text) {}

  bool text(LiteralJson& read) {
    space();
    if (!value(read)) {
      return false;
    }
    space();
    return rest.empty();
  }

  bool isTooDeep() const { return depth > MAX_DEPTH; }

 private:
  char front() const { return rest.empty() ? '\0' : rest.front(); }

  bool take(std::string_view token) {
    if (rest.substr(0, token.size()) != token) {
      return false;
    }
    rest.remove_prefix(token.size());
    return true;
  }

  void space() {
    while (take(" ") || take("\t") || take("\n") || take("\r")) {
    }
  }

  bool spaced(std::string_view token) {
    space();
    const bool taken = take(token);
    space();
    return taken;
  }

  bool value(LiteralJson& read) {
    const std::string_view from = rest;
    if (!anyValue(read)) {
      return false;
    }
    read.text = from.substr(0, from.size() - rest.size());
    return true;
  }

  bool anyValue(LiteralJson& read) {
    switch (front()) {
      case '{':
        return container(read, "}", &Grammar::member);
      case '[':
        return container(read, "]", &Grammar::element);
      case '"':
        return string(read);
      case 't':
        return take("true");
      case 'f':
        return take("false");
      case 'n':
        return take("null");
      default:
        return number();
    }
  }

  bool container(LiteralJson& read, std::string_view closing, bool (Grammar::*part)(LiteralJson&)) {
    rest.remove_prefix(1);
    if (++depth > MAX_DEPTH) {
      return false;
    }
    space();
    if (!take(closing)) {
      do {
        if (!(this->*part)(read)) {
          return false;
        }
      } while (spaced(","));
      if (!take(closing)) {
        return false;
      }
    }
    --depth;
    return true;
  }

  bool element(LiteralJson& array) { return value(array.parts.emplace_back()); }

  bool member(LiteralJson& object) {
    return front() == '"' && value(object.parts.emplace_back()) && spaced(":") && value(object.parts.emplace_back());
  }

  bool string(LiteralJson& read) {
    std::vector<Unit> units;
    rest.remove_prefix(1);
    while (!take("\"")) {
      if (!unit(units.emplace_back())) {
        return false;
      }
    }
    read.plain = plainText(units);
    return true;
  }

  bool unit(Unit& read) {
    if (rest.empty()) {
      return false;
    }
    if (take("\\u")) {
      return hexadecimal(read);
    }
    const bool escaped = take("\\");
    const char byte = front();
    const std::size_t letter = std::string_view("\"\\/bfnrt").find(byte);
    if (escaped && letter == std::string_view::npos) {
      return false;
    }
    read = BYTE + static_cast<unsigned char>(escaped ? "\"\\/\b\f\n\r\t"[letter] : byte);
    rest.remove_prefix(1);
    return true;
  }

  bool hexadecimal(Unit& read) {
    const std::string digits(rest.substr(0, 4));
    if (digits.size() < 4 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      return false;
    }
    read = static_cast<Unit>(std::stoul(digits, nullptr, 16));
    return take(digits);
  }

  bool number() {
    take("-");
    if (!take("0") && !digits()) {
      return false;
    }
    if (take(".") && !digits()) {
      return false;
    }
    if (!take("e") && !take("E")) {
      return true;
    }
    static_cast<void>(take("+") || take("-"));
    return digits();
  }

  bool digits() {
    const std::size_t count = std::min(rest.find_first_not_of("0123456789"), rest.size());
    rest.remove_prefix(count);
    return count > 0;
  }

  std::string_view rest;
  int depth = 0;
};

}  // namespace

Verdict readLiterally(std::string_view text, LiteralJson& value) {
  Grammar grammar(text);
  if (grammar.text(value)) {
    return Verdict::VALID;
  }
  return grammar.isTooDeep() ? Verdict::TOO_DEEP : Verdict::INVALID;
}

}  // namespace fuzz
