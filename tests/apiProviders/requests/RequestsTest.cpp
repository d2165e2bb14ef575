// Which requests there are, and what becomes of those that are not understood.

#include "apiProviders/requests/RequestsTest.h"

namespace test {
namespace {

using namespace std::string_literals;

Exchange refusal(const std::string& request, const std::string& escapedMessage) {
  return {request, errorReply(escapedMessage), {}, {}};
}

/// Refused by an exception on the way to the manager.
Exchange invalid(const std::string& request, const std::string& message) {
  return {request, errorReply(message), {}, {"Invalid request format: " + message}};
}

TEST_F(RequestsTest, EachRequestIsAnsweredByItsOperation) {
  const Exchange table[] = {
      {R"({"request":"token","scope":"device"})",
       R"({"status":"ok","token":"abc.def.ghi"})",
       {"getToken(device)"},
       {R"(Sending json token reply {"status":"ok","token":"abc.def.ghi"})"}},
      {R"({"request":"data"})", R"({"status":"ok","discovery_data":{"config":{}}})", {"getDiscoveryData()"}, {}},
      {R"({"request":"certificate_id"})",
       R"({"status":"ok","certificate_id":"device-0001"})",
       {"getCertificateId()"},
       {R"(SSO API Sending json certificate id reply {"status":"ok","certificate_id":"device-0001"})"}},
      {R"({"request":"reset"})",
       R"({"status":"ok"})",
       {"reset()"},
       {R"(SSO API Sending reset confirmation {"status":"ok"})"}},
  };
  for (const Exchange& row : table) {
    expect(row);
  }
}

TEST_F(RequestsTest, ResetOfAManagerThatIsNotReadyIsConfirmedAllTheSame) {
  ManagerScript script;
  script.reset = [] { return false; };
  expect({R"({"request":"reset"})",
          R"({"status":"ok"})",
          {"reset()"},
          {R"(SSO API Sending reset confirmation {"status":"ok"})"}},
         script);
}

TEST_F(RequestsTest, RequestNamesAreComparedExactly) {
  const Exchange table[] = {
      refusal(R"({"request":"discovery_data"})", "unsupported request: discovery_data"),
      refusal(R"({"request":"Token","scope":"x"})", "unsupported request: Token"),
      refusal(R"({"request":"RESET"})", "unsupported request: RESET"),
      refusal(R"({"request":"reset "})", "unsupported request: reset "),
      refusal(R"({"request":" data"})", "unsupported request:  data"),
      refusal(R"({"request":"certificate"})", "unsupported request: certificate"),
      refusal(R"({"request":""})", "unsupported request: "),
      refusal(R"({"request":"a/b"})", R"(unsupported request: a\/b)"),
      refusal(R"({"request":"a\"b\\c\n\t"})", R"(unsupported request: a\"b\\c\n\t)"),
      refusal(R"({"request":"%s%n"})", "unsupported request: %s%n"),
      refusal("{\"request\":\"\xc3\xa4\"}", "unsupported request: \xc3\xa4"),
  };
  for (const Exchange& row : table) {
    expect(row);
  }
}

TEST_F(RequestsTest, RequestNameHasToBeAString) {
  for (const char* request :
       {R"({})", R"({"request":5})", R"({"request":true})", R"({"request":null})", R"({"request":["reset"]})",
        R"({"request":{"request":"reset"}})", R"({"Request":"reset"})", R"({"scope":"x"})", R"([])", R"([1])",
        R"(["request","reset"])", R"([{"request":"reset"}])"}) {
    expect(refusal(request, "request not specified"));
  }
}

TEST_F(RequestsTest, TokenNeedsAScopeThatIsAString) {
  for (const char* request :
       {R"({"request":"token"})", R"({"request":"token","scope":5})", R"({"request":"token","scope":null})",
        R"({"request":"token","scope":false})", R"({"request":"token","scope":["x"]})",
        R"({"request":"token","scope":{}})", R"({"request":"token","Scope":"x"})"}) {
    expect(refusal(request, "unspecified token scope"));
  }
}

TEST_F(RequestsTest, WhatDoesNotParseIsAnsweredWithTheParsersText) {
  const Exchange table[] = {
      invalid("", "Input is not a valid object"),
      invalid("   ", "Input is not a valid object"),
      invalid("hello", "Input is not a valid object"),
      invalid("\"reset\"", "Input is not a valid object"),
      invalid("5", "Input is not a valid object"),
      invalid("null", "Input is not a valid object"),
      invalid("{", "Input is not a valid object"),
      invalid(R"({"request")", "Input is not a valid object"),
      invalid(R"({"request":)", "Input was only whitespace"),
      invalid(R"({"request":"reset")", "Input is not a valid object"),
      invalid(R"({"request":"reset)", "Input is not a valid object"),
      invalid(R"({request:"reset"})", "Input is not a valid object"),
      invalid(R"({"request":reset})", "Input is not a valid object"),
      invalid(R"({"request":"a\/b"})", "Input is not a valid object"),
      invalid(R"({"request":"reset","request":"reset"})", "Key conflict"),
      invalid(R"({"":"reset"})", "Missing key"),
  };
  for (const Exchange& row : table) {
    expect(row);
  }
}

TEST_F(RequestsTest, EmptyRequestAfterAFailedReadIsAnsweredWithTheParsersText) {
  const LogCapture log;
  ApiClient client(server.port());
  client.send(lengthPrefix(0xffffffff));
  EXPECT_EQ(client.receiveAll(), frame(errorReply("Input is not a valid object")));
  EXPECT_EQ(log.lines(), apiLines({"SSO API server accepted the client", "SSO API request message size: -1",
                                   "SSO API request read failed, read 0 out of -1", "SSO API Client request ",
                                   "Processing request ", "Invalid request format: Input is not a valid object"}));
}

TEST_F(RequestsTest, WhatTheParserForgivesIsForgiven) {
  const Lines confirmation = {R"(SSO API Sending reset confirmation {"status":"ok"})"};
  for (const char* request : {R"(  { "request" : "reset" }  )", R"({"request":"reset",})",
                              R"({"request":"reset"} and more)", R"({"request":"reset","other":1,"scope":[]})",
                              R"({"other":{"request":"data"},"request":"reset"})", R"({"request":"re\u0041set"})"}) {
    expect({request, R"({"status":"ok"})", {"reset()"}, confirmation});
  }
}

TEST_F(RequestsTest, ScopeReachesTheManagerDecoded) {
  struct {
    const char* written;
    const char* decoded;
  } const table[] = {{"", ""},
                     {"a b", "a b"},
                     {"a/b", "a/b"},
                     {R"(\"quoted\")", "\"quoted\""},
                     {R"(back\\slash)", "back\\slash"},
                     {R"(\b\f\n\r\t)", "\b\f\n\r\t"},
                     {R"(x\u0041y)", "xy"},
                     {"\xc3\xa4", "\xc3\xa4"}};
  for (const auto& row : table) {
    expect({R"({"request":"token","scope":")"s + row.written + R"("})",
            R"({"status":"ok","token":"abc.def.ghi"})",
            {"getToken("s + row.decoded + ")"},
            {R"(Sending json token reply {"status":"ok","token":"abc.def.ghi"})"}});
  }
}

}  // namespace
}  // namespace test
