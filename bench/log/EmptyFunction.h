#pragma once

/// Does nothing. In a file of its own, so that its calls stay.
void emptyFunction(const char* format, const char* text, int number);
