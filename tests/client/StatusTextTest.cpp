#include <gtest/gtest.h>

#include <climits>

#include "client/CallsFromC.h"
#include "ssoclient.h"

namespace {

TEST(ClientStatus, NumbersAndTextsStayWhatTheyAre) {
  struct Row {
    ssoclient_status status;
    int number;
    const char* text;
  };
  for (const Row& row :
       {Row{SSOCLIENT_OK, 0, "done"}, Row{SSOCLIENT_INVALID_ARGUMENT, 1, "invalid argument"},
        Row{SSOCLIENT_CANNOT_CONNECT, 2, "cannot connect"}, Row{SSOCLIENT_TIMED_OUT, 3, "timed out"},
        Row{SSOCLIENT_CONNECTION_CLOSED, 4, "connection closed before the reply was complete"},
        Row{SSOCLIENT_MALFORMED_REPLY, 5, "malformed reply"}, Row{SSOCLIENT_REFUSED, 6, "refused by the service"},
        Row{SSOCLIENT_OUT_OF_MEMORY, 7, "out of memory"}}) {
    EXPECT_EQ(row.status, row.number);
    EXPECT_STREQ(ssoclient_status_text(row.status), row.text);
    EXPECT_STREQ(text_of_status_number(row.number), row.text);
  }
}

TEST(ClientStatus, UnknownNumberHasATextToo) {
  for (const int number : {-1, 8, 99, 256, INT_MAX, INT_MIN}) {
    EXPECT_STREQ(text_of_status_number(number), "unknown status") << number;
  }
}

}  // namespace
