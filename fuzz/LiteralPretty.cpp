#include "LiteralPretty.h"

namespace fuzz {
namespace {

bool isContainer(const std::string& value) {
  return !value.empty() && (value.front() == '{' || value.front() == '[');
}

/// What stands behind a key, or in an array behind the tabs.
std::string valueText(const std::string& value, unsigned indent) {
  if (!isContainer(value)) {
    return value;
  }
  return prettyLiterally(test::modelParse(value.c_str()), indent).substr(indent);
}

}  // namespace

std::string prettyLiterally(const DocumentModel& document, unsigned indent) {
  std::string text(indent, '\t');
  if (document.entries.empty()) {
    return text + (document.array ? "[]" : "{}");
  }
  text += document.array ? "[\n" : "{\n";
  for (const auto& entry : document.entries) {
    text.append(indent + 1, '\t');
    text += document.array ? "" : "\"" + entry.first + "\": ";
    text += valueText(entry.second, indent + 1) + ",\n";
  }
  text.erase(text.size() - 2, 1);
  return text.append(indent, '\t') + (document.array ? "]" : "}");
}

}  // namespace fuzz
