#pragma once

// The JSON library: documents that keep every value as JSON text, and the character-at-a-time reader that decides where
// a value ends. It has no state of its own: distinct objects may be used from distinct threads without a lock.

#include "json/characters.h"
#include "json/codec.h"
#include "json/document.h"
#include "json/errors.h"
#include "json/jtype.h"
#include "json/reader.h"
