// What a reply carries: the manager's texts and its failures, to the byte.

#include <stdexcept>

#include "KCException.h"
#include "SsoException.h"
#include "apiProviders/requests/RequestsTest.h"
#include "json/json.h"
#include "support/LoggedAt.h"

namespace test {
namespace {

using namespace std::string_literals;

class RepliesTest : public RequestsTest {};

// Texts as they are and as the replies carry them.
struct Escaped {
  const char* plain;
  const char* written;
};
const Escaped ESCAPED[] = {{"", ""},
                           {"abc.def-ghi_jkl", "abc.def-ghi_jkl"},
                           {"a/b", R"(a\/b)"},
                           {R"(say "no")", R"(say \"no\")"},
                           {R"(C:\dir)", R"(C:\\dir)"},
                           {"\b\f\n\r\t", R"(\b\f\n\r\t)"},
                           {"\x01\x1f\x7f", "\x01\x1f\x7f"},
                           {"\xc3\xa4\xff", "\xc3\xa4\xff"},
                           {"%s%n", "%s%n"},
                           {R"({"status":"ok"})", R"({\"status\":\"ok\"})"}};

TEST_F(RepliesTest, TokenIsWrittenAsAString) {
  for (const Escaped& row : ESCAPED) {
    ManagerScript script;
    script.getToken = [&](const std::string&) { return row.plain; };
    const std::string reply = R"({"status":"ok","token":")"s + row.written + R"("})";
    expect({R"({"request":"token","scope":"x"})", reply, {"getToken(x)"}, {"Sending json token reply " + reply}},
           script);
  }
}

TEST_F(RepliesTest, CertificateIdIsWrittenAsAString) {
  for (const Escaped& row : ESCAPED) {
    ManagerScript script;
    script.getCertificateId = [&] { return row.plain; };
    const std::string reply = R"({"status":"ok","certificate_id":")"s + row.written + R"("})";
    expect({R"({"request":"certificate_id"})",
            reply,
            {"getCertificateId()"},
            {"SSO API Sending json certificate id reply " + reply}},
           script);
  }
}

TEST_F(RepliesTest, DiscoveryDataIsWrittenAsADocument) {
  struct {
    const char* data;
    const char* written;
  } const table[] = {{"{}", "{}"},
                     {"[]", "[]"},
                     {R"( { "a" : [ 1 , 2.5e3 , true , null ] , "b" : { "c" : "d e" } } )",
                      R"({"a":[1,2.5e3,true,null],"b":{"c":"d e"}})"},
                     {R"({"url":"https://cloud/x","quote":"\"","unicode":"\u0041"})",
                      R"({"url":"https://cloud/x","quote":"\"","unicode":"\u0041"})"},
                     {R"({"a/b":1,"c\u0041d":2})", R"({"a\/b":1,"cd":2})"},
                     {R"({"a":1,} trailing)", R"({"a":1})"}};
  for (const auto& row : table) {
    SCOPED_TRACE(row.data);
    ManagerScript script;
    script.getDiscoveryData = [&] { return row.data; };
    expect({R"({"request":"data"})",
            R"({"status":"ok","discovery_data":)"s + row.written + "}",
            {"getDiscoveryData()"},
            {}},
           script);
  }
}

TEST_F(RepliesTest, DiscoveryDataThatDoesNotParseIsAnError) {
  struct {
    const char* data;
    const char* message;
  } const table[] = {{"", "Input is not a valid object"},         {"text/plain", "Input is not a valid object"},
                     {"\"text\"", "Input is not a valid object"}, {R"({"a":)", "Input was only whitespace"},
                     {R"({"a":1,"a":2})", "Key conflict"},        {R"({"":1})", "Missing key"}};
  for (const auto& row : table) {
    SCOPED_TRACE(row.data);
    ManagerScript script;
    script.getDiscoveryData = [&] { return row.data; };
    expect({R"({"request":"data"})",
            errorReply(row.message),
            {"getDiscoveryData()"},
            {"SSO API Getting discovery data failed"}},
           script);
  }
}

/// A manager whose every operation throws.
template <typename Exception>
ManagerScript failing(const Exception& exception) {
  return {[exception](const std::string&) -> std::string { throw exception; },
          [exception]() -> std::string { throw exception; }, [exception]() -> std::string { throw exception; },
          [exception]() -> bool { throw exception; }};
}

TEST_F(RepliesTest, FailedOperationIsAnErrorWithItsText) {
  struct {
    const char* text;
    const char* written;
    Lines shown;  // in the log, where the text's line ends are line ends
  } const table[] = {
      {"", "", {""}},
      {"Cloud discovery failed. ", "Cloud discovery failed. ", {"Cloud discovery failed. "}},
      {"at https://cloud/x", R"(at https:\/\/cloud\/x)", {"at https://cloud/x"}},
      {"he said \"no\"", R"(he said \"no\")", {"he said \"no\""}},
      {"C:\\dir\tx", R"(C:\\dir\tx)", {"C:\\dir\tx"}},
      {"two\nlines", R"(two\nlines)", {"two", "lines"}},
      {"%s%n", "%s%n", {"%s%n"}},
      {R"({"status":"ok"})", R"({\"status\":\"ok\"})", {R"({"status":"ok"})"}},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.text);
    const ManagerScript script = failing(velo::ssoService::SsoException(row.text));
    const std::string reply = errorReply(row.written);
    // The line of a message with the text behind it: the log's further lines carry no source.
    const auto withText = [&](const std::string& message) {
      Lines lines = apiLines({message + row.shown[0]});
      lines.insert(lines.end(), row.shown.begin() + 1, row.shown.end());
      return lines;
    };
    struct {
      const char* request;
      const char* call;
      Lines lines;
    } const operations[] = {
        {R"({"request":"token","scope":"x"})", "getToken(x)", withText("SSO API Getting access token failed ")},
        {R"({"request":"data"})", "getDiscoveryData()", apiLines({"SSO API Getting discovery data failed"})},
        {R"({"request":"certificate_id"})", "getCertificateId()", apiLines({"SSO API Getting certificate id failed"})},
        {R"({"request":"reset"})", "reset()", withText("SSO Reset failed ")},
    };
    for (const auto& operation : operations) {
      SCOPED_TRACE(operation.request);
      scriptManager(script);
      const LogCapture log;
      EXPECT_EQ(ask(server.port(), operation.request), frame(reply));
      EXPECT_EQ(managerCalls(), Lines{operation.call});
      EXPECT_EQ(log.lines(), requestLines(operation.request) + apiLines({"Processing request "s + operation.request}) +
                                 operation.lines);
    }
  }
}

TEST_F(RepliesTest, AnyStandardExceptionOfAnOperationBecomesAnErrorReply) {
  const std::string generic = std::exception().what();
  struct {
    ManagerScript script;
    std::string message;
  } const table[] = {{failing(std::exception()), generic},
                     {failing(std::runtime_error("runtime")), "runtime"},
                     {failing(std::logic_error("logic")), "logic"},
                     {failing(velo::ssoService::KCException("key")), "key"},
                     {failing(velo::ssoService::SsoException("sso")), "sso"},
                     {failing(json::invalid_key("member")), "member"}};
  for (const auto& row : table) {
    for (const char* request : {R"({"request":"token","scope":"x"})", R"({"request":"data"})",
                                R"({"request":"certificate_id"})", R"({"request":"reset"})"}) {
      SCOPED_TRACE(row.message + " " + request);
      scriptManager(row.script);
      EXPECT_EQ(ask(server.port(), request), frame(errorReply(row.message)));
    }
  }
}

TEST_F(RepliesTest, NothingOfARequestSurvivesIt) {
  scriptManager(failing(velo::ssoService::SsoException("first")));
  EXPECT_EQ(ask(server.port(), R"({"request":"data"})"), frame(errorReply("first")));
  expect({R"({"request":"data"})", R"({"status":"ok","discovery_data":{"config":{}}})", {"getDiscoveryData()"}, {}});
}

TEST_F(RepliesTest, DeepNestingIsAnsweredLikeAnythingElse) {
  const std::string open(500000, '[');
  const std::string closed = open + std::string(500000, ']');
  struct {
    const char* name;
    std::string request;
    const char* message;
  } const table[] = {
      {"million open brackets", open + open, "Input is not a valid object"},
      {"half a million open and closed", closed, "request not specified"},
      {"as the request's name", R"({"request":)" + closed + "}", "request not specified"},
      {"as the scope", R"({"request":"token","scope":)" + closed + "}", "unspecified token scope"},
  };
  log_init(nullptr, LOG_LEVEL_OFF, 0);  // the requests need not be written down
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ask(server.port(), row.request), frame(errorReply(row.message)));
  }
  ManagerScript script;
  script.getDiscoveryData = [&] { return closed; };
  scriptManager(script);
  EXPECT_TRUE(ask(server.port(), R"({"request":"data"})") ==
              frame(R"({"status":"ok","discovery_data":)" + closed + "}"));
}

TEST_F(RepliesTest, EachMessageIsWrittenFromItsLevelOn) {
  struct {
    int level;
    ManagerScript script;
    const char* request;
    const char* message;
  } const table[] = {
      {LOG_LEVEL_INFO, {}, R"({"request":"x"})", R"(Processing request {"request":"x"})"},
      {LOG_LEVEL_ERROR, {}, "x", "Invalid request format: Input is not a valid object"},
      {LOG_LEVEL_INFO,
       {},
       R"({"request":"token","scope":"x"})",
       R"(Sending json token reply {"status":"ok","token":"abc.def.ghi"})"},
      {LOG_LEVEL_ERROR, failing(std::runtime_error("why")), R"({"request":"token","scope":"x"})",
       "SSO API Getting access token failed why"},
      {LOG_LEVEL_ERROR, failing(std::runtime_error("why")), R"({"request":"data"})",
       "SSO API Getting discovery data failed"},
      {LOG_LEVEL_DEBUG,
       {},
       R"({"request":"certificate_id"})",
       R"(SSO API Sending json certificate id reply {"status":"ok","certificate_id":"device-0001"})"},
      {LOG_LEVEL_ERROR, failing(std::runtime_error("why")), R"({"request":"certificate_id"})",
       "SSO API Getting certificate id failed"},
      {LOG_LEVEL_DEBUG, {}, R"({"request":"reset"})", R"(SSO API Sending reset confirmation {"status":"ok"})"},
      {LOG_LEVEL_ERROR, failing(std::runtime_error("why")), R"({"request":"reset"})", "SSO Reset failed why"},
  };
  for (const auto& row : table) {
    scriptManager(row.script);
    EXPECT_TRUE(isLoggedAt(row.level, apiLines({row.message})[0], [&] { ask(server.port(), row.request); }));
  }
}

TEST_F(RepliesTest, ProvidersMeetOnlyInTheManager) {
  const ApiServer other(&manager);
  ManagerScript script;
  std::string meanwhile;
  script.getToken = [&](const std::string&) {
    meanwhile = ask(other.port(), R"({"request":"certificate_id"})");
    return "token";
  };
  scriptManager(script);
  EXPECT_EQ(ask(server.port(), R"({"request":"token","scope":"x"})"), frame(R"({"status":"ok","token":"token"})"));
  EXPECT_EQ(meanwhile, frame(R"({"status":"ok","certificate_id":"device-0001"})"));
}

}  // namespace
}  // namespace test
