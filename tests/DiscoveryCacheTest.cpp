// The backup file: when it is written, when it is read, and what is said about it.

#include <gmock/gmock.h>

#include <filesystem>

#include "Discovery.h"
#include "logging/logging.h"
#include "support/DeadPorts.h"
#include "support/EncryptedDiscovery.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/OpenDescriptors.h"
#include "support/ScriptedProvider.h"
#include "support/TemporaryDirectory.h"
#include "support/Terminal.h"
#include "support/Thrown.h"
#include "util/HttpExchange.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using velo::ssoService::Discovery;

const std::string BOTH_FAILED = "SsoException: Couldn't retrieve cloud configure from the cloud and the backup file";
const std::string NOT_FOUND = "config.endpoints.veloIdConfiguration not found";

std::string replyWith(const std::string& url) {
  return discoveryReply(discoveryPayload(url), deviceIdentity().certificate);
}

class DiscoveryCacheTest : public testing::Test {
 protected:
  const velo::ssoService::HttpLibrary library;
  HttpServer server;
  ScriptedProvider provider;
  const TemporaryDirectory folder;
  const std::string fileName = folder.file("device-0001.cfg");
  const std::string cloudUrl = server.url("/");
  const std::string unavailable = "Couldn't retrieve discovery data from " + cloudUrl + ". Curl returned: 503";
  Discovery discovery{cloudUrl, true, folder.path(), &provider};

  void answer(const std::string& body, int status = 200) { server.on("/device-0001", HttpReply{status, body}); }
  void keep(const std::string& contents) { folder.write("device-0001.cfg", contents); }
  std::string kept() const { return folder.read("device-0001.cfg"); }
  std::string failure() {
    return thrownBy([this] { discovery.retrieveConfiguration(); });
  }
};

TEST_F(DiscoveryCacheTest, WithoutCachingNoFileIsReadOrWritten) {
  Discovery uncached(cloudUrl, false, folder.path(), &provider);
  const std::string before = replyWith("from the file");
  keep(before);
  answer("", 503);
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { uncached.retrieveConfiguration(); }),
            "SsoException: Couldn't retrieve configuration from the cloud: " + unavailable +
                " Cloud config caching not enabled");
  EXPECT_THAT(log.lines(), ElementsAre("Discovery: Making discovery request to " + cloudUrl,
                                       "Discovery: Discovery request, Curl response code: 503",
                                       "Discovery: Discovery request, Curl response code: 503",
                                       "Discovery: Couldn't retrieve configuration from the cloud: " + unavailable +
                                           ". Cloud config caching not enabled"));
  answer(replyWith("from the cloud"));
  uncached.retrieveConfiguration();
  EXPECT_EQ(kept(), before);
  EXPECT_EQ(uncached.getSsoWellKnownUrl(), "from the cloud");
}

TEST_F(DiscoveryCacheTest, UnreachableCloudWithoutAFile) {
  const ClosedPort closed;
  const std::string url = "http://127.0.0.1:" + std::to_string(closed.port()) + "/";
  Discovery offline(url, true, folder.path(), &provider);
  const std::string error = curl_easy_strerror(CURLE_COULDNT_CONNECT);
  const std::string refused = "Couldn't retrieve discovery data from " + url + " Curl failed. Error: " + error;
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { offline.retrieveConfiguration(); }), BOTH_FAILED);
  EXPECT_THAT(
      log.lines(),
      ElementsAre("Discovery: Making discovery request to " + url, "Discovery: curl_easy_perform() failed: " + error,
                  "Discovery: Couldn't retrieve configuration from the cloud: " + refused + ". Trying backup file",
                  "Discovery: Couldn't retrieve configuration from the backup file: "
                  "Couldn't open cloud discover backup config file " +
                      fileName));
  EXPECT_THAT(folder.names(), IsEmpty());
}

TEST_F(DiscoveryCacheTest, GoodReplyIsStoredByteForByteAndTheFileIsNotRead) {
  const std::string reply = " " + replyWith("from the cloud") + "\r\n trailing text \xC3\xA4";
  keep(replyWith("from the file") + std::string(10000, ' '));
  answer(reply);
  const LogCapture log;
  EXPECT_EQ(failure(), "nothing");
  EXPECT_EQ(kept(), reply);
  EXPECT_EQ(discovery.getSsoWellKnownUrl(), "from the cloud");
  EXPECT_THAT(log.lines(),
              ElementsAre("Discovery: Making discovery request to " + cloudUrl,
                          "Discovery: Discovery request, Curl response code: 200",
                          "Discovery: Discovery Request, found data tag.", "Discovery: base64 decoded size: 256",
                          "Discovery: Decrypting Discovery Request: 256 size", "Discovery: string offset : 0",
                          "Discovery: Discovery Request successfully decoded",
                          "Discovery: SSO well known endpoint found: from the cloud",
                          "Discovery: Cloud config data was successfully stored in " + fileName));
}

TEST_F(DiscoveryCacheTest, FileStandsInForTheCloud) {
  keep(replyWith("from the file"));
  answer("", 503);
  const LogCapture log;
  EXPECT_EQ(failure(), "nothing");
  EXPECT_EQ(discovery.getSsoWellKnownUrl(), "from the file");
  EXPECT_EQ(discovery.getDiscoveryData(), discoveryPayload("from the file"));
  EXPECT_TRUE(discovery.hasConfiguration());
  EXPECT_THAT(
      log.lines(),
      ElementsAre("Discovery: Making discovery request to " + cloudUrl,
                  "Discovery: Discovery request, Curl response code: 503",
                  "Discovery: Discovery request, Curl response code: 503",
                  "Discovery: Couldn't retrieve configuration from the cloud: " + unavailable + ". Trying backup file",
                  "Discovery: Cloud config data successfully retrieved from " + fileName,
                  "Discovery: Discovery Request, found data tag.", "Discovery: base64 decoded size: 256",
                  "Discovery: Decrypting Discovery Request: 256 size", "Discovery: string offset : 0",
                  "Discovery: Discovery Request successfully decoded",
                  "Discovery: SSO well known endpoint found: from the file"));
}

TEST_F(DiscoveryCacheTest, FileIsNotRewrittenFromItself) {
  const std::string contents = replyWith("from the file") + "\nand what somebody added";
  keep(contents);
  const auto longAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  std::filesystem::last_write_time(fileName, longAgo);
  answer("", 503);
  EXPECT_EQ(failure(), "nothing");
  EXPECT_EQ(kept(), contents);
  EXPECT_EQ(std::filesystem::last_write_time(fileName), longAgo);
}

TEST_F(DiscoveryCacheTest, BadReplyLeavesTheFileWhichIsThenUsed) {
  const std::string block = encryptBlocks({"x"}, otherIdentity().certificate);
  const struct {
    int status;
    std::string body;
  } rows[] = {
      {503, replyWith("from the cloud")},
      {404, ""},
      {200, ""},
      {200, "{}"},
      {200, R"({"data":5})"},
      {200, R"({"data":""})"},
      {200, R"({"data":"!!!!"})"},
      {200, R"({"data":")" + base64Encode(block) + R"("})"},
      {200, R"({"data":")" + base64Encode(encryptBlocks({""}, deviceIdentity().certificate)) + R"("})"},
      {200, discoveryReply("not JSON", deviceIdentity().certificate)},
  };
  const std::string before = replyWith("from the file");
  keep(before);
  for (const auto& row : rows) {
    answer(row.body, row.status);
    EXPECT_EQ(failure(), "nothing") << row.status << row.body;
    EXPECT_EQ(discovery.getSsoWellKnownUrl(), "from the file") << row.status << row.body;
    EXPECT_EQ(kept(), before) << row.status << row.body;
  }
}

TEST_F(DiscoveryCacheTest, ReplyWithoutTheUrlReplacesTheFileAndFailsTwice) {
  for (const char* payload :
       {R"({"config":{"endpoints":{}}})", R"({"config":{"endpoints":{"veloIdConfiguration":5}}})"}) {
    const std::string reply = discoveryReply(payload, deviceIdentity().certificate);
    keep(replyWith("from the file"));
    answer(reply);
    const LogCapture log(LOG_LEVEL_INFO);
    EXPECT_EQ(failure(), BOTH_FAILED);
    EXPECT_EQ(kept(), reply);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("Discovery: Making discovery request to " + cloudUrl,
                    "Discovery: Cloud config data was successfully stored in " + fileName,
                    "Discovery: Couldn't retrieve configuration from the cloud: " + NOT_FOUND + ". Trying backup file",
                    "Discovery: Cloud config data successfully retrieved from " + fileName,
                    "Discovery: Couldn't retrieve configuration from the backup file: " + NOT_FOUND));
    EXPECT_FALSE(discovery.hasConfiguration());
  }
}

TEST_F(DiscoveryCacheTest, UnusableFileIsToldInTheLogAlone) {
  const std::string processing = "Error processing JSON returned by Discovery Request.";
  const struct {
    std::string contents;
    std::string reason;
  } rows[] = {
      {"", " is empty"},
      {"x", processing + "Input is not a valid object"},
      {"{}", processing + "data"},
      {R"({"data":5})", processing + "JSON returned by Discovery Request is missing data tag."},
      {R"({"data":""})", "Nothing to decrypt"},
      {R"({"data":"eA=="})", "Decrypting Discovery data: RSA_private_decrypt() FAILED"},
      {discoveryReply("{}", deviceIdentity().certificate), NOT_FOUND},
      {discoveryReply("x", deviceIdentity().certificate), processing + "Input is not a valid object"},
  };
  answer("", 503);
  for (const auto& row : rows) {
    keep(row.contents);
    const LogCapture log;
    EXPECT_EQ(failure(), BOTH_FAILED) << row.contents;
    EXPECT_EQ(log.lines().back(), "Discovery: Couldn't retrieve configuration from the backup file: " + row.reason);
    EXPECT_EQ(kept(), row.contents);
  }
}

TEST_F(DiscoveryCacheTest, DirectoryInTheFilesPlaceIsAnEmptyFile) {
  std::filesystem::create_directory(fileName);
  answer("", 503);
  const LogCapture log;
  EXPECT_EQ(failure(), BOTH_FAILED);
  EXPECT_EQ(log.lines().back(), "Discovery: Couldn't retrieve configuration from the backup file:  is empty");
}

TEST_F(DiscoveryCacheTest, FileOfAnOlderKeyFailsInDecryption) {
  const std::string before = replyWith("from the file");
  keep(before);
  provider.privateKeySource = [] { return otherIdentity().privateKey; };
  answer("", 503);
  const LogCapture log;
  EXPECT_EQ(failure(), BOTH_FAILED);
  EXPECT_EQ(log.lines().back(),
            "Discovery: Couldn't retrieve configuration from the backup file: "
            "Decrypting Discovery data: RSA_private_decrypt() FAILED");
  EXPECT_EQ(kept(), before);
}

TEST_F(DiscoveryCacheTest, FileLiesInTheFolderWithOrWithoutItsSlash) {
  answer(replyWith("x"));
  for (const std::string& given : {folder.path(), folder.path() + "/"}) {
    std::filesystem::remove(fileName);
    Discovery(cloudUrl, true, given, &provider).retrieveConfiguration();
    EXPECT_THAT(folder.names(), ElementsAre("device-0001.cfg")) << given;
  }
}

TEST_F(DiscoveryCacheTest, WithoutAFolderTheFileLiesInTheWorkingDirectory) {
  answer(replyWith("x"));
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  Discovery cached(cloudUrl, true, "", &provider);
  const std::vector<std::string> lines = linesOf([&] { cached.retrieveConfiguration(); }, LOG_LEVEL_INFO);
  std::filesystem::current_path(before);
  EXPECT_EQ(lines.back(), "Discovery: Cloud config data was successfully stored in device-0001.cfg");
  EXPECT_THAT(folder.names(), ElementsAre("device-0001.cfg"));
}

TEST_F(DiscoveryCacheTest, FileThatCannotBeWrittenIsReportedAsStored) {
  std::filesystem::create_directory(folder.file("full"));
  std::filesystem::create_directories(folder.file("full/device-0001.cfg"));
  answer(replyWith("from the cloud"));
  for (const char* name : {"missing", "full"}) {
    Discovery cached(cloudUrl, true, folder.file(name), &provider);
    const LogCapture log;
    EXPECT_EQ(thrownBy([&] { cached.retrieveConfiguration(); }), "nothing");
    EXPECT_EQ(log.lines().back(),
              "Discovery: Cloud config data was successfully stored in " + folder.file(name) + "/device-0001.cfg");
    EXPECT_EQ(cached.getSsoWellKnownUrl(), "from the cloud");
  }
  EXPECT_FALSE(std::filesystem::exists(folder.file("missing")));
}

TEST_F(DiscoveryCacheTest, DeviceIdIsTheFileNameAsItIs) {
  provider.certificateIdSource = [] { return "DE/CN=a b"; };
  server.on("/DE/CN=a%20b", HttpReply{503});
  Discovery cached(server.url("/?id="), true, folder.path(), &provider);
  const LogCapture log;
  EXPECT_EQ(thrownBy([&] { cached.retrieveConfiguration(); }), BOTH_FAILED);
  EXPECT_EQ(log.lines().back(),
            "Discovery: Couldn't retrieve configuration from the backup file: "
            "Couldn't open cloud discover backup config file " +
                folder.file("DE/CN=a b.cfg"));
}

TEST_F(DiscoveryCacheTest, StrangeExceptionsPassThroughUntouched) {
  keep(replyWith("from the file"));
  answer(replyWith("from the cloud"));
  provider.privateKeySource = []() -> std::string { throw 5; };
  const LogCapture log(LOG_LEVEL_ERROR);
  EXPECT_THROW(discovery.retrieveConfiguration(), int);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(DiscoveryCacheTest, NoDescriptorStaysOpen) {
  answer(replyWith("x"));
  failure();
  const OpenDescriptors open;
  for (const int status : {200, 503}) {
    answer(replyWith("x"), status);
    failure();
    EXPECT_TRUE(open.areAsBefore());
  }
  keep("");
  failure();
  EXPECT_TRUE(open.areAsBefore());
}

TEST_F(DiscoveryCacheTest, Levels) {
  Discovery uncached(cloudUrl, false, "", &provider);
  const struct {
    int level;
    std::string message;
    int status;
    std::string contents;
    Discovery& used;
  } rows[] = {
      {LOG_LEVEL_ERROR, "Couldn't retrieve configuration from the cloud: " + unavailable + ". Trying backup file", 503,
       replyWith("x"), discovery},
      {LOG_LEVEL_ERROR,
       "Couldn't retrieve configuration from the cloud: " + unavailable + ". Cloud config caching not enabled", 503, "",
       uncached},
      {LOG_LEVEL_ERROR, "Couldn't retrieve configuration from the backup file:  is empty", 503, "", discovery},
      {LOG_LEVEL_INFO, "Cloud config data was successfully stored in " + fileName, 200, "", discovery},
      {LOG_LEVEL_INFO, "Cloud config data successfully retrieved from " + fileName, 503, replyWith("x"), discovery},
  };
  for (const auto& row : rows) {
    answer(replyWith("x"), row.status);
    keep(row.contents);
    EXPECT_TRUE(isLoggedAt(row.level, "Discovery: " + row.message, [&] { row.used.retrieveConfiguration(); }));
  }
}

/// A backup file lets a key be tried without a server, whose threads would not survive in the child.
TEST(DiscoveryOnTerminalTest, EncryptedKeyIsNotAskedFor) {
  const velo::ssoService::HttpLibrary library;
  const ClosedPort closed;
  const TemporaryDirectory folder;
  folder.write("device-0001.cfg", replyWith("x"));
  ScriptedProvider provider;
  provider.privateKeySource = [key = encryptedPrivateKey("secret")] { return key; };
  Discovery offline("http://127.0.0.1:" + std::to_string(closed.port()) + "/", true, folder.path(), &provider);
  EXPECT_EQ(shownOnTerminal([&] { offline.retrieveConfiguration(); }), "");
  EXPECT_EQ(thrownBy([&] { offline.retrieveConfiguration(); }), BOTH_FAILED);
}

}  // namespace
}  // namespace test
