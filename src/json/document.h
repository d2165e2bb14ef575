#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "json/jtype.h"

namespace json {

class scanner;

/// A JSON object or array: an ordered list of keys and values, each value kept as compact JSON text until it is asked
/// for in a type. Lookups scan from the front. An array's entries have empty keys.
class jobject {
 public:
  struct kvp {
    kvp() = default;
    kvp(std::string entry_key, std::string value_text);

    std::string key;    ///< plain text; empty in an array
    std::string value;  ///< JSON text, strings with their quotes and escapes
  };

  class entry;
  class const_value;
  class const_proxy;
  class proxy;

  jobject() : jobject(false) {}
  explicit jobject(bool array) : array_flag(array) {}
  jobject(const jobject&) = default;
  jobject(jobject&&) = default;
  jobject& operator=(const jobject&) = default;
  jobject& operator=(jobject&&) = default;

  virtual ~jobject() = default;

  /// Access to the value of a key, which need not exist yet. Throws invalid_key on an array. The accessor refers to
  /// this document, which has to outlive it.
  virtual proxy operator[](const std::string& key);
  virtual const_proxy operator[](const std::string& key) const;

  /// Builds a document from text; whatever follows its closing bracket is ignored, and so is a comma before that.
  /// Throws parsing_error with the texts of parse_value, decode_string and operator+=, or "Input is not a valid
  /// object".
  static jobject parse(const char* input);
  static jobject parse(const std::string& input) { return parse(input.c_str()); }

  std::size_t size() const { return data.size(); }
  bool is_array() const { return array_flag; }
  bool has_key(const std::string& key) const;

  /// Replaces the value text of the key in place, or appends it. The text is taken as it is. Throws invalid_key on an
  /// array.
  void set(const std::string& key, std::string value_text);

  void remove(const std::string& key);

  /// Appends an entry. Throws parsing_error "Key conflict", "Array cannot have key" or "Missing key", in that order.
  jobject& operator+=(const kvp& new_entry);

  /// A copy of the value at a position. Throws std::out_of_range.
  const_value at(std::size_t index) const;

  /// The keys in entry order; none for an array.
  std::vector<std::string> list_keys() const;

  /// Compact text, no white space added.
  std::string as_string() const;
  operator std::string() const { return as_string(); }

  /// Text indented by tabs, this value being at the given depth. Nested values are parsed: throws what parse throws.
  std::string pretty(unsigned indent = 0) const;

 private:
  const char* parse_entry(const char* position, scanner& value_scanner);
  void check_distinct_keys() const;
  void check_new_key(const std::string& key) const;

  std::vector<kvp> data;
  bool array_flag;
};

/// Reads one value in the type that the caller asks for. The numeric conversions are those of sscanf and a text that
/// does not convert yields 0; as_object, the vector conversions and the type tests throw parsing_error like parse,
/// parse_array and parse_value.
class jobject::entry {
 public:
  virtual ~entry() = default;

  std::string as_string() const;
  operator std::string() const { return as_string(); }

  jobject as_object() const;
  operator jobject() const { return as_object(); }

  operator int() const;
  operator unsigned int() const;
  operator long() const;
  operator unsigned long() const;
  operator char() const;
  operator float() const;
  operator double() const;

  operator std::vector<int>() const;
  operator std::vector<unsigned int>() const;
  operator std::vector<long>() const;
  operator std::vector<unsigned long>() const;
  operator std::vector<char>() const;
  operator std::vector<float>() const;
  operator std::vector<double>() const;

  bool is_string() const;
  bool is_number() const;
  bool is_object() const;  ///< true for an array as well
  bool is_array() const;
  bool is_bool() const;

  /// The value's text.
  virtual const std::string& ref() const = 0;

 protected:
  entry() = default;
  entry(const entry&) = default;
  entry& operator=(const entry&) = default;
};

/// A value with a text of its own.
class jobject::const_value : public jobject::entry {
 public:
  explicit const_value(std::string value_text) : value(std::move(value_text)) {}

  const std::string& ref() const override { return value; }

 private:
  std::string value;
};

/// The value of a key of a document. Every read throws invalid_key while the key is absent.
class jobject::const_proxy : public jobject::entry {
 public:
  /// Throws std::logic_error "Source cannot be an array".
  const_proxy(const jobject& source_document, std::string value_key);

  const std::string& ref() const override;

 protected:
  const jobject& source;
  const std::string key;
};

/// The same, writable: an assignment replaces the value or appends it.
class jobject::proxy : public jobject::const_proxy {
 public:
  proxy(jobject& document, std::string value_key);

  proxy& operator=(const std::string& text);
  proxy& operator=(const char* text);
  proxy& operator=(const jobject& document);

  /// Stores an array of these element texts, each made a string literal first when quote is set.
  void set_array(const std::vector<std::string>& values, bool quote = false);

 private:
  jobject& sink;
};

}  // namespace json
