#pragma once

#include <string>

#include "LiteralDocument.h"

namespace fuzz {

/// The document's indented text, level by level: the depth of a value is call depth here. Throws what the reading of a
/// nested value throws.
std::string prettyLiterally(const DocumentModel& document, unsigned indent);

}  // namespace fuzz
