#pragma once

#include <functional>
#include <string>

#include "support/JsonDocumentModel.h"

namespace fuzz {

// What is read from JSON by the slow models of tests/support, character by character: what the service's reading of
// documents is compared with.

using test::DocumentModel;

/// The value text of the first entry with this key; null when there is none, or in an array.
const std::string* findMember(const DocumentModel& document, const std::string& key);

json::jtype literalType(const std::string& value);

/// Whether there is such a member and it is of this type.
bool hasMember(const DocumentModel& document, const std::string& key, json::jtype type);

/// The same for an object or an array.
bool hasContainer(const DocumentModel& document, const std::string& key);

/// A string's plain text; any other value's text as it is.
std::string literalText(const std::string& value);

/// A member's plain text; there has to be one.
std::string memberText(const DocumentModel& document, const std::string& key);

/// A member's document; there has to be one.
DocumentModel memberDocument(const DocumentModel& document, const std::string& key);

/// The string literal for a text, which ends at its first NUL.
std::string literalEscape(const std::string& text);

/// The document's compact text.
std::string writeLiterally(const DocumentModel& document);

/// What a function returns, or "threw " and what() of what it throws.
std::string outcomeOf(const std::function<std::string()>& function);

}  // namespace fuzz
