#include <cstring>

#include "json/codec.h"
#include "json/document.h"

namespace json {
namespace {

bool is_container(const std::string& value_text) {
  const jtype type = type_of(value_text.c_str()[0]);
  return type == jtype::jobject || type == jtype::jarray;
}

/// A document being written and the position of its next entry.
struct open_document {
  jobject document;
  std::size_t next;
};

}  // namespace

std::string jobject::as_string() const {
  std::size_t length = std::strlen("{}");
  for (const kvp& written : data) {
    length += written.key.size() + written.value.size() + std::strlen("\"\":,");
  }
  std::string text;
  text.reserve(length);
  text += array_flag ? '[' : '{';
  for (const kvp& written : data) {
    if (!array_flag) {
      text += escape_string(written.key.c_str());
      text += ':';
    }
    text += written.value;
    text += ',';
  }
  if (!data.empty()) {
    text.pop_back();
  }
  text += array_flag ? ']' : '}';
  return text;
}

/// Walks the nested documents with a stack of its own, so that their depth costs no call depth.
std::string jobject::pretty(unsigned indent) const {
  std::string text(indent, '\t');
  std::vector<open_document> open;
  const auto begin = [&](const jobject& document) {
    if (document.data.empty()) {
      text += document.array_flag ? "[]" : "{}";
    } else {
      text += document.array_flag ? '[' : '{';
      open.push_back({document, 0});
    }
  };
  begin(*this);
  while (!open.empty()) {
    open_document& innermost = open.back();
    if (innermost.next == innermost.document.data.size()) {
      const char closing = innermost.document.array_flag ? ']' : '}';
      open.pop_back();
      text.append("\n").append(indent + open.size(), '\t') += closing;
      continue;
    }
    const kvp written = innermost.document.data[innermost.next];
    text.append(innermost.next == 0 ? "\n" : ",\n").append(indent + open.size(), '\t');
    ++innermost.next;
    if (!innermost.document.array_flag) {
      text += '"' + written.key + "\": ";  // Kept: the key as stored, not escaped.
    }
    if (is_container(written.value)) {
      begin(parse(written.value));
    } else {
      text += written.value;
    }
  }
  return text;
}

}  // namespace json
