#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* The library's text of a status that need not exist, which only C can pass on. */
const char* text_of_status_number(int number);

#ifdef __cplusplus
}
#endif
