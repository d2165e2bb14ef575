#include "json/json.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

namespace json {

using namespace characters;

namespace {

enum string_state : char {
  STRING_EMPTY = 0,
  STRING_OPENED = 1,
  STRING_BODY = 2,
  STRING_ESCAPE = 3,
  STRING_HEX_0 = 4,
  STRING_HEX_1 = 5,
  STRING_HEX_2 = 6,
  STRING_HEX_3 = 7,
  STRING_CLOSED = 8
};

enum number_state : char {
  NUMBER_EMPTY = 0,
  NUMBER_MINUS = 1,
  NUMBER_ZERO = 2,
  NUMBER_INTEGER = 3,
  NUMBER_POINT = 4,
  NUMBER_FRACTION = 5,
  NUMBER_EXPONENT_MARK = 6,
  NUMBER_EXPONENT_SIGN = 7,
  NUMBER_EXPONENT = 8
};

enum container_state : char { CONTAINER_EMPTY = 0, CONTAINER_OPENED = 1, CONTAINER_COMMA = 3, CONTAINER_CLOSED = 4 };

constexpr character_set DIGITS("0123456789");
constexpr character_set PLAIN = STRING_MARKS.complement();

constexpr const char* str_true = "true";
constexpr const char* str_false = "false";
constexpr const char* str_null = "null";

constexpr std::size_t USUAL_LENGTH = 500;

// By this name failed assertions speak of it.
bool IS_DIGIT(char c) {
  return is_digit(c);
}

}  // namespace

reader::reader() {
  reader::clear();
}

void reader::clear() {
  used = 0;
  ends.clear();
  completed = 0;
  begin_value();
}

jtype reader::type() const {
  return used == 0 ? jtype::not_valid : type_of(front());
}

std::string reader::readout() const {
  return substr(0, ends.empty() ? used : completed);
}

bool reader::value_is_valid() const {
  switch (value_type) {
    case jtype::jstring:
      return state == STRING_CLOSED;
    case jtype::jnumber:
      return state == NUMBER_ZERO || state == NUMBER_INTEGER || state == NUMBER_FRACTION || state == NUMBER_EXPONENT;
    case jtype::jobject:
    case jtype::jarray:
      return state == CONTAINER_CLOSED;
    case jtype::jbool:
      return back() == 'e';  // true and false both end with their only e
    case jtype::jnull:
      return length() == std::strlen(str_null);
    case jtype::not_valid:
      return false;
  }
  throw std::logic_error("Unexpected return");
}

bool reader::is_valid() const {
  return ends.empty() && used != 0 && value_is_valid();
}

void reader::append_character(char c) {
  (*this)[used] = c;
  ++used;
}

/// The state changes, and with it what is accepted without a further look.
reader::push_result reader::accept(char c, char next_state, const character_set& next_run) {
  state = next_state;
  run = &next_run;
  append_character(c);
  return ACCEPTED;
}

reader::push_result reader::accept_first_digit(char c) {
  return c == '0' ? accept(c, NUMBER_ZERO) : accept(c, NUMBER_INTEGER, DIGITS);
}

void reader::begin_value() {
  value_begin = used;
  set_state(0);
}

void reader::open_child(char end) {
  if (ends.empty()) {
    completed = used;
  }
  ends.push_back(end);
  begin_value();
}

reader::push_result reader::push(char c) {
  if (used == size()) {
    return grow_and_push(c);
  }
  if (run->has(c)) {
    append_character(c);
    return ACCEPTED;
  }
  return push_step(c);
}

reader::push_result reader::grow_and_push(char c) {
  resize(used < capacity() ? capacity() : std::max(USUAL_LENGTH, 2 * used));
  return push_step(c);
}

/// A character that changes the state, white space, or one that is not accepted.
reader::push_result reader::push_step(char c) {
  if (length() == 0) {
    if (is_whitespace(c)) {
      return ends.empty() ? ACCEPTED : WHITESPACE;
    }
    value_type = type_of(c);
  }
  switch (value_type) {
    case jtype::jstring:
      return push_string(c);
    case jtype::jnumber:
      return push_number(c);
    case jtype::jobject:
      return push_object(c);
    case jtype::jarray:
      return push_array(c);
    case jtype::jbool:
      return push_word(jtype::jbool, c);
    case jtype::jnull:
      return push_word(jtype::jnull, c);
    case jtype::not_valid:
      return REJECTED;
  }
  throw std::logic_error("Unexpected return");
}

/// A character behind the innermost value, which is complete. Kept: a number that is complete can go on, behind white
/// space too, so [1 2] reads as [12].
reader::push_result reader::push_behind(char c) {
  if (ends.empty()) {
    return REJECTED;
  }
  const char end = ends.back();
  if (c != end && (c != ',' || end == ':')) {
    return is_whitespace(c) ? WHITESPACE : REJECTED;
  }
  if (end == ':') {
    return push_colon(c);
  }
  ends.pop_back();
  value_type = end == ']' ? jtype::jarray : jtype::jobject;
  return accept(c, c == ',' ? CONTAINER_COMMA : CONTAINER_CLOSED);
}

/// The colon behind a key: now the closing brace ends the innermost value.
reader::push_result reader::push_colon(char c) {
  append_character(c);
  ends.back() = '}';
  begin_value();
  return ACCEPTED;
}

reader::push_result reader::push_string(char c) {
  switch (state) {
    case STRING_EMPTY:
      assert(this->length() == 0);
      return c == '"' ? accept(c, STRING_OPENED) : REJECTED;
    case STRING_OPENED:
      assert(this->length() == 1);
      [[fallthrough]];
    case STRING_BODY:
      assert(this->length() > 0);
      if (c == '"' || c == '\\') {
        return accept(c, c == '"' ? STRING_CLOSED : STRING_ESCAPE);
      }
      return accept(c, STRING_BODY, PLAIN);  // Kept: control bytes and NUL included.
    case STRING_ESCAPE:
      if (!is_escape_letter(c)) {
        return REJECTED;
      }
      return c == 'u' ? accept(c, STRING_HEX_0) : accept(c, STRING_BODY, PLAIN);
    case STRING_HEX_0:
      assert(this->back() == 'u');
      break;
    case STRING_HEX_1:
    case STRING_HEX_2:
    case STRING_HEX_3:
      assert(is_hex_digit(this->back()));
      break;
    case STRING_CLOSED:
      return push_behind(c);
    default:
      throw std::logic_error("Unexpected return");
  }
  if (!is_hex_digit(c)) {
    return REJECTED;
  }
  return state == STRING_HEX_3 ? accept(c, STRING_BODY, PLAIN) : accept(c, static_cast<char>(state + 1));
}

reader::push_result reader::push_number(char c) {
  const bool digit = IS_DIGIT(c);
  switch (state) {
    case NUMBER_EMPTY:
      assert(this->length() == 0);
      if (c == '-') {
        return accept(c, NUMBER_MINUS);
      }
      return digit ? accept_first_digit(c) : REJECTED;
    case NUMBER_MINUS:
      return digit ? accept_first_digit(c) : REJECTED;
    case NUMBER_INTEGER:
      assert(IS_DIGIT(this->back()));
      if (digit) {
        return accept(c, NUMBER_INTEGER, DIGITS);
      }
      [[fallthrough]];
    case NUMBER_ZERO:
      if (c == '.') {
        return accept(c, NUMBER_POINT);
      }
      return is_exponent_mark(c) ? accept(c, NUMBER_EXPONENT_MARK) : push_behind(c);
    case NUMBER_POINT:
      assert(this->back() == '.');
      return digit ? accept(c, NUMBER_FRACTION, DIGITS) : REJECTED;
    case NUMBER_FRACTION:
      assert(IS_DIGIT(this->back()));
      if (digit) {
        return accept(c, NUMBER_FRACTION, DIGITS);
      }
      return is_exponent_mark(c) ? accept(c, NUMBER_EXPONENT_MARK) : push_behind(c);
    case NUMBER_EXPONENT_MARK:
      assert(this->back() == 'e' || this->back() == 'E');
      if (c == '+' || c == '-') {
        return accept(c, NUMBER_EXPONENT_SIGN);
      }
      [[fallthrough]];
    case NUMBER_EXPONENT_SIGN:
      return digit ? accept(c, NUMBER_EXPONENT, DIGITS) : REJECTED;
    case NUMBER_EXPONENT:
      return digit ? accept(c, NUMBER_EXPONENT, DIGITS) : push_behind(c);
    default:
      throw std::logic_error("Unexpected return");
  }
}

/// A character for or behind true, false or null.
reader::push_result reader::push_word(jtype type, char c) {
  const push_result result = type == jtype::jbool ? push_boolean(c) : push_null(c);
  assert(result != WHITESPACE);
  return result == REJECTED && value_is_valid() ? push_behind(c) : result;
}

reader::push_result reader::push_boolean(char c) {
  const std::size_t position = length();
  if (position == 0) {
    return c == 't' || c == 'f' ? accept(c, state) : REJECTED;
  }
  const char first = (*this)[value_begin];
  if (first != 't' && first != 'f') {
    throw parsing_error("Unexpected state");
  }
  const char* str = first == 't' ? str_true : str_false;
  assert(str == str_true || str == str_false);
  return c != '\0' && str[position] == c ? accept(c, state) : REJECTED;
}

reader::push_result reader::push_null(char c) {
  const std::size_t position = length();
  if (position > std::strlen(str_null)) {
    throw parsing_error("Unexpected state");
  }
  if (c == '\0' || str_null[position] != c) {
    return REJECTED;
  }
  return accept(c, state);
}

reader::push_result reader::push_array(char c) {
  return push_container(c, '[', ']');
}

reader::push_result reader::push_object(char c) {
  return push_container(c, '{', '}');
}

/// A character for or behind a container without an open child.
reader::push_result reader::push_container(char c, char opening, char closing) {
  switch (state) {
    case CONTAINER_EMPTY:
      return c == opening ? accept(c, CONTAINER_OPENED) : REJECTED;
    case CONTAINER_OPENED:
    case CONTAINER_COMMA:
      if (is_whitespace(c)) {
        return WHITESPACE;
      }
      if (c == closing && state == CONTAINER_OPENED) {
        return accept(c, CONTAINER_CLOSED);
      }
      if (opening == '[' ? type_of(c) == jtype::not_valid : c != '"') {
        return REJECTED;
      }
      open_child(opening == '[' ? ']' : ':');
      return push_step(c);
    case CONTAINER_CLOSED:
      return push_behind(c);
    default:
      throw std::logic_error("Unexpected return");
  }
}

void kvp_reader::clear() {
  reader::clear();
  _key.clear();
  _colon_read = false;
}

reader::push_result kvp_reader::push(char c) {
  if (!_colon_read) {
    if (_key.used == 0) {
      if (c != '"') {
        return is_whitespace(c) ? WHITESPACE : REJECTED;
      }
      _key.push(c);
      assert(this->_key.type() == json::jtype::jstring);
      assert(this->_key.length() == 1);
      return ACCEPTED;
    }
    if (!_key.is_valid()) {
      return _key.push(c);
    }
    assert(this->_key.is_valid());
    _colon_read = c == ':';
    return _colon_read ? ACCEPTED : (is_whitespace(c) ? WHITESPACE : REJECTED);
  }
  assert(this->_colon_read);
  if (used == 0 && is_whitespace(c)) {
    assert(reader::get_state<char>() == 0);
    return WHITESPACE;
  }
  return reader::push(c);
}

bool kvp_reader::is_valid() const {
  return reader::is_valid() && _key.is_valid();
}

std::string kvp_reader::readout() const {
  return _key.readout() + ":" + reader::readout();
}

}  // namespace json
