#pragma once

namespace json {

/// The type of a value, judged from the first character of its text alone.
enum class jtype { jstring = 0, jnumber = 1, jobject = 2, jarray = 3, jbool = 4, jnull = 5, not_valid = 6 };

/// The type that a value starting with this character has: "nope" counts as null here, only the reader looks further.
jtype type_of(char first);

/// Skips leading white space, then judges the first character left; the end of the text is not_valid.
jtype type_of_text(const char* text);

/// White space in the "C" locale, whatever the signedness of char.
bool is_whitespace(char c);

/// The first character that is not white space, or the terminating NUL.
const char* skip_whitespace(const char* text);

}  // namespace json
