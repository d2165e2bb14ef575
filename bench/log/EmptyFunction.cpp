#include "log/EmptyFunction.h"

void emptyFunction(const char* /*format*/, const char* /*text*/, int /*number*/) {
}
