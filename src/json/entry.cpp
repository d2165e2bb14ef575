#include <cstdio>
#include <stdexcept>
#include <utility>

#include "json/codec.h"
#include "json/document.h"
#include "json/errors.h"
#include "json/scanner.h"

namespace json {
namespace {

/// The sscanf format that reads a type.
template <typename T>
constexpr const char* FORMAT = nullptr;
template <>
constexpr const char* FORMAT<int> = "%i";
template <>
constexpr const char* FORMAT<unsigned int> = "%u";
template <>
constexpr const char* FORMAT<long> = "%li";
template <>
constexpr const char* FORMAT<unsigned long> = "%lu";
template <>
constexpr const char* FORMAT<char> = "%c";
template <>
constexpr const char* FORMAT<float> = "%f";
template <>
constexpr const char* FORMAT<double> = "%lf";

template <typename T>
T convert(const std::string& text) {
  T value{};
  // Kept: whether the text converts is not looked at; what does not is 0.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  static_cast<void>(std::sscanf(text.c_str(), FORMAT<T>, &value));
#pragma GCC diagnostic pop
  return value;
}

template <typename T>
std::vector<T> convert_elements(const std::string& text) {
  std::vector<T> values;
  for (const std::string& element : parse_array(text.c_str())) {
    values.push_back(convert<T>(element));
  }
  return values;
}

jtype parsed_type(const std::string& text) {
  scanner value_scanner;
  return value_scanner.read(text.c_str());
}

}  // namespace

std::string jobject::entry::as_string() const {
  const std::string& text = ref();
  return type_of(text.c_str()[0]) == jtype::jstring ? decode_string(text.c_str()) : text;
}

jobject jobject::entry::as_object() const {
  return parse(ref());
}

jobject::entry::operator int() const {
  return convert<int>(ref());
}

jobject::entry::operator unsigned int() const {
  return convert<unsigned int>(ref());
}

jobject::entry::operator long() const {
  return convert<long>(ref());
}

jobject::entry::operator unsigned long() const {
  return convert<unsigned long>(ref());
}

jobject::entry::operator char() const {
  return convert<char>(ref());
}

jobject::entry::operator float() const {
  return convert<float>(ref());
}

jobject::entry::operator double() const {
  return convert<double>(ref());
}

jobject::entry::operator std::vector<int>() const {
  return convert_elements<int>(ref());
}

jobject::entry::operator std::vector<unsigned int>() const {
  return convert_elements<unsigned int>(ref());
}

jobject::entry::operator std::vector<long>() const {
  return convert_elements<long>(ref());
}

jobject::entry::operator std::vector<unsigned long>() const {
  return convert_elements<unsigned long>(ref());
}

jobject::entry::operator std::vector<char>() const {
  return convert_elements<char>(ref());
}

jobject::entry::operator std::vector<float>() const {
  return convert_elements<float>(ref());
}

jobject::entry::operator std::vector<double>() const {
  return convert_elements<double>(ref());
}

bool jobject::entry::is_string() const {
  return parsed_type(ref()) == jtype::jstring;
}

bool jobject::entry::is_number() const {
  return parsed_type(ref()) == jtype::jnumber;
}

bool jobject::entry::is_object() const {
  const jtype type = parsed_type(ref());
  return type == jtype::jobject || type == jtype::jarray;  // Kept: an array counts as an object here.
}

bool jobject::entry::is_array() const {
  return parsed_type(ref()) == jtype::jarray;
}

bool jobject::entry::is_bool() const {
  return parsed_type(ref()) == jtype::jbool;
}

jobject::const_proxy::const_proxy(const jobject& source_document, std::string value_key)
    : source(source_document), key(std::move(value_key)) {
  if (source.array_flag) {
    throw std::logic_error("Source cannot be an array");
  }
}

const std::string& jobject::const_proxy::ref() const {
  for (const kvp& candidate : source.data) {
    if (candidate.key == key) {
      return candidate.value;
    }
  }
  throw invalid_key(key);
}

jobject::proxy::proxy(jobject& document, std::string value_key)
    : const_proxy(document, std::move(value_key)), sink(document) {
}

jobject::proxy& jobject::proxy::operator=(const std::string& text) {
  return *this = text.c_str();
}

jobject::proxy& jobject::proxy::operator=(const char* text) {
  sink.set(key, escape_string(text));
  return *this;
}

jobject::proxy& jobject::proxy::operator=(const jobject& document) {
  sink.set(key, document.as_string());
  return *this;
}

void jobject::proxy::set_array(const std::vector<std::string>& values, bool quote) {
  std::string text = "[";
  for (const std::string& value : values) {
    text += quote ? escape_string(value.c_str()) : value;
    text += ',';
  }
  if (!values.empty()) {
    text.pop_back();
  }
  text += ']';
  sink.set(key, text);
}

}  // namespace json
