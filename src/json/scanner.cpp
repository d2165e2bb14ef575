#include "json/scanner.h"

#include "json/characters.h"
#include "json/errors.h"

namespace json {

using namespace characters;

namespace {

constexpr std::size_t USUAL_LENGTH = 500;

}  // namespace

jtype scanner::read(const char* input) {
  first = skip_whitespace(input);
  if (*first == '\0') {
    throw parsing_error("Input was only whitespace");
  }
  position = first;
  kept = first;
  compact.clear();
  open_containers.clear();
  return read_value() ? type_of(*first) : jtype::not_valid;
}

std::string scanner::text() const {
  if (compact.empty()) {
    return std::string(kept, position);
  }
  std::string whole;
  whole.reserve(compact.size() + static_cast<std::size_t>(position - kept));
  whole.append(compact).append(kept, static_cast<std::size_t>(position - kept));
  return whole;
}

bool scanner::read_value() {
  bool opened = false;
  do {
    opened = *position == '{' || *position == '[';
    if (opened) {
      opened = open_container();
    } else if (!read_scalar()) {
      return false;
    }
  } while (opened ? open_containers.back() == ']' || read_key() : next_value());
  return open_containers.empty();
}

bool scanner::read_scalar() {
  switch (type_of(*position)) {
    case jtype::jstring:
      return read_string();
    case jtype::jnumber:
      return read_number();
    case jtype::jbool:
      return read_word(*position == 't' ? "true" : "false");
    case jtype::jnull:
      return read_word("null");
    default:
      return false;
  }
}

/// Takes an opening bracket. True when a value or a key has to follow, false when the closing bracket did.
bool scanner::open_container() {
  const char closing = *position == '{' ? '}' : ']';
  ++position;
  drop_whitespace();
  if (*position == closing) {
    ++position;
    return false;
  }
  open_containers.push_back(closing);
  return true;
}

/// Goes on behind a complete value, over the brackets that close there. True at the beginning of another value.
bool scanner::next_value() {
  while (!open_containers.empty()) {
    drop_whitespace();
    if (*position == ',') {
      ++position;
      drop_whitespace();
      return open_containers.back() == ']' || read_key();
    }
    if (*position != open_containers.back()) {
      return false;
    }
    ++position;
    open_containers.pop_back();
  }
  return false;
}

/// Takes an entry's key and colon.
bool scanner::read_key() {
  if (*position != '"' || !read_string()) {
    return false;
  }
  drop_whitespace();
  if (*position != ':') {
    return false;
  }
  ++position;
  drop_whitespace();
  return true;
}

bool scanner::read_string() {
  ++position;
  for (;;) {
    position = STRING_ENDS.find(position);
    if (*position != '\\') {
      break;
    }
    ++position;
    if (!read_escape()) {
      return false;
    }
  }
  if (*position == '\0') {
    return false;
  }
  ++position;
  return true;
}

/// Takes what stands behind a backslash.
bool scanner::read_escape() {
  if (!is_escape_letter(*position)) {
    return false;
  }
  const bool unicode = *position == 'u';
  ++position;
  for (int digits = 0; unicode && digits < 4; ++digits) {
    if (!is_hex_digit(*position)) {
      return false;
    }
    ++position;
  }
  return true;
}

bool scanner::read_number() {
  if (*position == '-') {
    ++position;
  }
  if (*position == '0') {
    ++position;
    if (!open_containers.empty()) {
      drop_whitespace();
    }
  } else if (!read_digits()) {
    return false;
  }
  if (*position == '.') {
    ++position;
    if (!read_digits()) {
      return false;
    }
  }
  if (is_exponent_mark(*position)) {
    ++position;
    if (*position == '+' || *position == '-') {
      ++position;
    }
    return read_digits();
  }
  return true;
}

/// Takes at least one digit. Kept: in a container white space may stand between and behind them, so [1 2] is [12].
bool scanner::read_digits() {
  if (!is_digit(*position)) {
    return false;
  }
  for (;;) {
    position = skip_digits(position);
    if (open_containers.empty() || !is_whitespace(*position)) {
      return true;
    }
    drop_whitespace();
  }
}

bool scanner::read_word(const char* word) {
  while (*word != '\0' && *position == *word) {
    ++word;
    ++position;
  }
  return *word == '\0';
}

void scanner::drop_whitespace() {
  if (is_whitespace(*position)) {
    if (compact.empty()) {
      compact.reserve(USUAL_LENGTH);
    }
    compact.append(kept, static_cast<std::size_t>(position - kept));
    position = skip_whitespace(position);
    kept = position;
  }
}

}  // namespace json
