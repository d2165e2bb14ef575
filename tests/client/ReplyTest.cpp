// What comes of a reply's payload, for each kind of request.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "client/Outcome.h"
#include "json/json.h"

extern "C" {
#include "client/lib/reply.h"
}

namespace {

using test::ok;
using test::only;
using test::Outcome;
using test::refused;

constexpr ssoclient_result NONE = SSOCLIENT_RESULT_NONE;
constexpr ssoclient_result TOKEN = SSOCLIENT_RESULT_TOKEN;
constexpr ssoclient_result ID = SSOCLIENT_RESULT_CERTIFICATE_ID;
constexpr ssoclient_result DATA = SSOCLIENT_RESULT_DISCOVERY_DATA;
constexpr ssoclient_result ALL[] = {NONE, TOKEN, ID, DATA};

const Outcome DONE = only(SSOCLIENT_OK);
const Outcome MALFORMED = only(SSOCLIENT_MALFORMED_REPLY);

/// The payload is in memory that ends with it.
Outcome read(ssoclient_result wanted, const std::string& payload) {
  const auto bytes = std::make_unique<char[]>(payload.size());
  std::copy(payload.begin(), payload.end(), bytes.get());
  return test::outcomeOf([&](char** text) { return ssoclient_read_reply(bytes.get(), payload.size(), wanted, text); });
}

struct Row {
  ssoclient_result wanted;
  std::string payload;
  Outcome expected;
};

void expectOutcomes(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(read(row.wanted, row.payload), row.expected) << row.payload.substr(0, 200);
  }
}

/// The same for every kind of request.
void expectOfAll(const Outcome& expected, const std::vector<std::string>& payloads) {
  for (const std::string& payload : payloads) {
    for (const ssoclient_result wanted : ALL) {
      expectOutcomes({{wanted, payload, expected}});
    }
  }
}

TEST(ClientReply, ResultIsTheMemberOfItsRequest) {
  const std::string all = R"({"status":"ok","token":"t","certificate_id":"i","discovery_data":{"d":1}})";
  expectOutcomes({{NONE, R"({"status":"ok"})", DONE},
                  {TOKEN, R"({"status":"ok","token":"eyJ.a-b_c"})", ok("eyJ.a-b_c")},
                  {ID, R"({"status":"ok","certificate_id":"device-0001"})", ok("device-0001")},
                  {DATA, R"({"status":"ok","discovery_data":{"a":[1]}})", ok(R"({"a":[1]})")},
                  {NONE, all, DONE},
                  {TOKEN, all, ok("t")},
                  {ID, all, ok("i")},
                  {DATA, all, ok(R"({"d":1})")}});
}

TEST(ClientReply, OrderWhiteSpaceAndFurtherMembersDoNotMatter) {
  expectOutcomes({{NONE, " \t\r\n{ \"status\" : \"ok\" } \t\r\n", DONE},
                  {TOKEN, "\n{ \"token\" :\t\"t\" , \"x\" : [ { \"token\" : 1 } ] , \"status\" : \"ok\" }\n", ok("t")},
                  {ID, R"({"certificate_id":"i","status":"ok","token":7,"message":null})", ok("i")},
                  {DATA, R"({"discovery_data":{},"status":"ok"})", ok("{}")},
                  {TOKEN, R"({"st\u0061tus":"\u006fk","tok\u0065n":"t"})", ok("t")},
                  {TOKEN, R"({"x":1,"x":2,"status":"ok","token":"t"})", ok("t")},
                  {TOKEN, R"({"message":"m","status":"ok","message":"n","token":"t"})", ok("t")}});
}

TEST(ClientReply, TextsAreDecoded) {
  expectOutcomes(
      {{TOKEN, R"({"status":"ok","token":"a\/b+c=="})", ok("a/b+c==")},
       {ID, R"({"status":"ok","certificate_id":"\u0041\"\\\n\ud83d\ude00"})", ok("A\"\\\n\xf0\x9f\x98\x80")},
       {ID, "{\"status\":\"ok\",\"certificate_id\":\"\x01\t\xff\xc3\"}", ok("\x01\t\xff\xc3")},
       {NONE, R"({"status":"error","message":"unsupported request: a\/b"})", refused("unsupported request: a/b")},
       {NONE, "{\"status\":\"error\",\"message\":\"\x1b\x80\"}", refused("\x1b\x80")}});
}

TEST(ClientReply, EmptyResultIsNone) {
  expectOutcomes(
      {{TOKEN, R"({"status":"ok","token":""})", MALFORMED}, {ID, R"({"status":"ok","certificate_id":""})", MALFORMED}});
}

TEST(ClientReply, DiscoveryDataIsGivenByteByByte) {
  for (const std::string data :
       {"{}", "{ }", "{\n\t\"a\" : 1 ,\r\n  \"b\":[ ] }", R"({"a":"\/\u0041\ud800\u0000","a":2,"\u0061":{}})",
        R"({"status":"error","message":"m","discovery_data":{}})", "{\"\xff\":\"\x01\x1f\t\"}",
        R"({"a":1.50E+03,"b":-0,"c":[null,true,false,"}]"]})"}) {
    expectOutcomes({{DATA, R"({"status":"ok","discovery_data":)" + data + "}", ok(data)},
                    {DATA, R"({"status":"ok","discovery_data": )" + data + "\n}", ok(data)},
                    {DATA, "{ \"discovery_data\"\t:\t" + data + " , \"status\":\"ok\"}", ok(data)}});
  }
}

TEST(ClientReply, ErrorIsTheServicesMessageWhateverWasWanted) {
  expectOfAll(refused("Missing key"), {R"({"status":"error","message":"Missing key"})",
                                       R"( { "message" : "Missing key" , "status" : "error" } )",
                                       R"({"status":"error","message":"Missing key","token":"t","token":1})",
                                       R"({"\u0073tatus":"err\u006fr","messag\u0065":"Missing\u0020key"})"});
  expectOfAll(refused(""), {R"({"status":"error","message":""})"});
}

TEST(ClientReply, EveryMessageOfTheServiceIsReadAsItWasMeant) {
  for (const std::string text : {"request not specified", "a/b \"c\" \\ \b\f\n\r\t", "\x01\x7f\x80\xff"}) {
    json::jobject reply;
    reply["status"] = "error";
    reply["message"] = text;
    expectOfAll(refused(text), {reply.as_string()});
  }
}

TEST(ClientReply, ResultHasToBeThereOnceAndOfItsKind) {
  for (const std::string value : {"null", "true", "0", "-1.5", "[]", "[\"t\"]"}) {
    expectOutcomes({{TOKEN, R"({"status":"ok","token":)" + value + "}", MALFORMED},
                    {ID, R"({"status":"ok","certificate_id":)" + value + "}", MALFORMED},
                    {DATA, R"({"status":"ok","discovery_data":)" + value + "}", MALFORMED}});
  }
  expectOutcomes({{TOKEN, R"({"status":"ok","token":{}})", MALFORMED},
                  {ID, R"({"status":"ok","certificate_id":{}})", MALFORMED},
                  {DATA, R"({"status":"ok","discovery_data":"{}"})", MALFORMED},
                  {DATA, R"({"status":"ok","discovery_data":[{}]})", MALFORMED},
                  {TOKEN, R"({"status":"ok"})", MALFORMED},
                  {ID, R"({"status":"ok"})", MALFORMED},
                  {DATA, R"({"status":"ok"})", MALFORMED},
                  {TOKEN, R"({"status":"ok","certificate_id":"i","Token":"t","token ":"t","":"t"})", MALFORMED},
                  {TOKEN, R"({"status":"ok","x":{"token":"t"}})", MALFORMED},
                  {TOKEN, R"({"status":"ok","token":"t","token":"t"})", MALFORMED},
                  {TOKEN, R"({"status":"ok","token":"t","\u0074oken":"u"})", MALFORMED},
                  {TOKEN, R"({"status":"ok","token":null,"token":"t"})", MALFORMED},
                  {ID, R"({"status":"ok","certificate_id":"i","certificate_id":"i"})", MALFORMED},
                  {DATA, R"({"status":"ok","discovery_data":{},"discovery_data":{}})", MALFORMED}});
}

TEST(ClientReply, MessageHasToBeThereOnceAndAString) {
  expectOfAll(MALFORMED,
              {R"({"status":"error"})", R"({"status":"error","message":null})", R"({"status":"error","message":1})",
               R"({"status":"error","message":{}})", R"({"status":"error","message":["m"]})",
               R"({"status":"error","Message":"m"})", R"({"status":"error","x":{"message":"m"}})",
               R"({"status":"error","message":"m","message":"m"})", R"({"status":"error","token":"t"})"});
}

TEST(ClientReply, StatusHasToBeThereOnceAndKnown) {
  for (const std::string rest :
       {R"("token":"t")", R"("certificate_id":"i")", R"("discovery_data":{})", R"("message":"m")"}) {
    expectOfAll(
        MALFORMED,
        {"{" + rest + "}", R"({"status":"OK",)" + rest + "}", R"({"status":"",)" + rest + "}",
         R"({"status":"okay",)" + rest + "}", R"({"status":"o",)" + rest + "}", R"({"status":" ok",)" + rest + "}",
         R"({"status":"errors",)" + rest + "}", R"({"status":"ok\u0000",)" + rest + "}",
         R"({"status":true,)" + rest + "}", R"({"status":null,)" + rest + "}", R"({"status":["ok"],)" + rest + "}",
         R"({"status":{"status":"ok"},)" + rest + "}", R"({"Status":"ok",)" + rest + "}",
         R"({"x":{"status":"ok"},)" + rest + "}", R"({"status":"ok","status":"ok",)" + rest + "}",
         R"({"status":"error","status":"ok",)" + rest + "}", R"({"status":"ok","st\u0061tus":"error",)" + rest + "}"});
  }
}

TEST(ClientReply, HasToBeOneObject) {
  expectOfAll(MALFORMED, {"",
                          " ",
                          "\n",
                          "garbage",
                          "ok",
                          "\"ok\"",
                          "1",
                          "true",
                          "null",
                          "[]",
                          R"(["status","ok"])",
                          R"([{"status":"ok"}])",
                          R"("{\"status\":\"ok\"}")",
                          "{}",
                          "{",
                          "}",
                          R"({"status":"ok")",
                          R"({"status":"ok",})",
                          R"({status:"ok"})",
                          R"({'status':'ok'})",
                          R"({"status":"ok"}x)",
                          R"({"status":"ok"}{})",
                          R"({"status":"ok"}{"status":"ok"})",
                          R"({"status":"ok"},)",
                          R"({"status":"ok"}})",
                          R"(x{"status":"ok"})",
                          "\xef\xbb\xbf{\"status\":\"ok\"}",
                          "{\"status\":\"ok\"}\v",
                          "\f{\"status\":\"ok\"}",
                          R"({"status":"ok"}//)",
                          R"({"status":"error","message":"m"}.)"});
}

TEST(ClientReply, OneWithANulAnywhereIsMalformed) {
  for (const std::string whole : {R"({"status":"error","message":"m"})",
                                  R"({"status":"ok","token":"t","certificate_id":"i","discovery_data":{"a":"b"}})"}) {
    for (std::size_t position = 0; position <= whole.size(); ++position) {
      std::string payload = whole;
      expectOfAll(MALFORMED, {payload.insert(position, 1, '\0')});
    }
  }
}

TEST(ClientReply, TextsThatNoCStringHoldsAreMalformed) {
  for (const std::string text : {R"(\u0000)", R"(a\u0000b)", R"(\ud800)", R"(secret\udc00)", R"(\ud83dx)"}) {
    expectOfAll(MALFORMED, {R"({"status":"error","message":")" + text + "\"}"});
    expectOutcomes({{TOKEN, R"({"status":"ok","token":")" + text + "\"}", MALFORMED},
                    {ID, R"({"status":"ok","certificate_id":")" + text + "\"}", MALFORMED},
                    {TOKEN, R"({"status":"ok","token":"t","x":")" + text + "\"}", ok("t")}});
  }
}

TEST(ClientReply, CutAtEveryLengthIsMalformed) {
  for (const std::string whole : {R"({"status":"error","message":"\u0041\n"})",
                                  R"({"status":"ok","token":"t","certificate_id":"i","discovery_data":{"a":[1]}})"}) {
    for (std::size_t length = 0; length < whole.size(); ++length) {
      expectOfAll(MALFORMED, {whole.substr(0, length)});
    }
  }
}

}  // namespace
