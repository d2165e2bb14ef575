#include "client/CallsFromC.h"

#include "ssoclient.h"

const char* text_of_status_number(int number) {
  return ssoclient_status_text((enum ssoclient_status)number);
}
