#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "json/characters.h"
#include "json/jtype.h"

namespace json {

/// Recognises one JSON value fed to it one character at a time: says for each character whether it belongs to the value
/// and keeps the value's text without the white space between tokens. Bad input is answered, never thrown; only a
/// broken internal state throws (std::logic_error "Unexpected return", parsing_error "Unexpected state").
///
/// Nesting costs one byte a level and no call depth: the text of the whole value stands in one buffer, and of the
/// arrays and objects around the value being read only the kind is remembered. Every step looks at the innermost value
/// and at most at the container next to it, since a container with an open child is never complete.
class reader : private std::string {
 public:
  enum push_result {
    ACCEPTED = 0,   ///< the character belongs to the value
    REJECTED = 1,   ///< it does not; nothing changed
    WHITESPACE = 2  ///< white space between tokens inside a container
  };

  reader();
  reader(const reader&) = default;
  reader& operator=(const reader&) = default;

  /// Forgets the value, so that a new one can be read.
  virtual void clear();

  virtual push_result push(char c);

  /// The type by the first character read; not_valid before that.
  virtual jtype type() const;

  /// Whether a complete value has been read.
  virtual bool is_valid() const;

  /// The text read so far. Of an open array or object it holds the completed elements only.
  virtual std::string readout() const;

  virtual ~reader() = default;

 protected:
  template <typename T>
  T get_state() const {
    return static_cast<T>(ends.empty() ? state : CONTAINER_READING);
  }

  template <typename T>
  void set_state(T value) {
    state = static_cast<char>(value);
    run = &characters::NOTHING;
  }

 private:
  friend class kvp_reader;

  static constexpr char CONTAINER_READING = 2;

  std::size_t length() const { return used - value_begin; }  // the innermost value's share of the buffer
  char back() const { return (*this)[used - 1]; }

  // Declared inline what is small: in position-independent code all else is called, and push_step and what it calls
  // need no stack frame as long as each ends with its only call.
  inline bool value_is_valid() const;
  inline void append_character(char c);
  inline push_result accept(char c, char next_state, const characters::character_set& next_run = characters::NOTHING);
  inline push_result accept_first_digit(char c);
  inline void begin_value();
  inline void open_child(char end);

  [[gnu::noinline]] push_result grow_and_push(char c);  // so that push itself stays short
  [[gnu::noinline]] push_result push_step(char c);
  push_result push_behind(char c);
  inline push_result push_colon(char c);
  push_result push_string(char c);
  push_result push_number(char c);
  push_result push_word(jtype type, char c);
  inline push_result push_boolean(char c);
  inline push_result push_null(char c);
  inline push_result push_array(char c);
  inline push_result push_object(char c);
  push_result push_container(char c, char opening, char closing);

  // The buffer is longer than what is used of it: a string that ends behind each character takes three times the time.
  std::size_t used = 0;
  std::vector<char> ends;  // what ends the child of each open container, outermost first: the closing bracket, or the
                           // colon if the child is a key
  std::size_t value_begin = 0;  // where the innermost value begins in the buffer, unless it is a container
  std::size_t completed = 0;    // length of the outermost container's text without its open child
  const characters::character_set* run = &characters::NOTHING;  // characters that are accepted without a further look
  jtype value_type = jtype::not_valid;                          // of the innermost value, if that has a character
  char state = 0;                                               // state of the innermost value
};

/// Recognises one "key":value pair of an object the same way; type() is the value's.
class kvp_reader : public reader {
 public:
  void clear() override;
  push_result push(char c) override;
  bool is_valid() const override;
  std::string readout() const override;
  ~kvp_reader() override = default;

 private:
  reader _key;
  bool _colon_read = false;
};

}  // namespace json
