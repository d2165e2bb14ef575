#include <gmock/gmock.h>

#include "kcProviders/FileTemplateKCProvider.h"
#include "logging/logging.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using velo::ssoService::countOccurrences;
using velo::ssoService::FileTemplateKCProvider;
using velo::ssoService::isValidTemplate;

TEST(FileTemplateKCProviderTest, OccurrencesAreCountedWithoutOverlap) {
  const struct {
    const char* text;
    const char* pattern;
    std::size_t count;
  } rows[] = {
      {"", "%s", 0},  {"%s", "%s", 1},   {"%s%s", "%s", 2}, {"a%sb%sc", "%s", 2}, {"%%ss", "%s", 1},
      {"%", "%s", 0}, {"aaaa", "aa", 2}, {"aaa", "aa", 1},  {"ababa", "aba", 1},  {"abc", "", 0},
      {"", "", 0},    {"s%", "%s", 0},   {"%%", "%", 2},    {"ab", "abc", 0},     {"%S", "%s", 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(countOccurrences(row.text, row.pattern), row.count) << row.text << " in search of " << row.pattern;
  }
}

TEST(FileTemplateKCProviderTest, TemplateHasOnePlaceholderAndNoOtherPercentSign) {
  const struct {
    const char* text;
    bool isValid;
  } rows[] = {
      {"/k/%s.pem", true},
      {"%s", true},
      {"%s.pem", true},
      {"/k/%s", true},
      {"/k/%s-%s.pem", false},
      {"/k/key.pem", false},
      {"/k/%d-%s.pem", false},
      {"/k/%%s.pem", false},
      {"", false},
      {"%", false},
      {"/k/%s%", false},
      {"%S", false},
      {"/k/% s", false},
      {"s%", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(isValidTemplate(row.text), row.isValid) << row.text;
    EXPECT_EQ(FileTemplateKCProvider::isValidTemplate(row.text), row.isValid) << row.text;
  }
}

TEST(FileTemplateKCProviderTest, InvalidTemplateIsRefusedInEveryEnvironment) {
  const LogCapture log;
  for (const char* invalid : {"/k/key.pem", "/k/%s-%s.pem", "/k/%d-%s.pem", "/k/%%s.pem", ""}) {
    for (const char* environment : {"", "prod", "staging"}) {
      const std::string refused =
          "KCException: Cannout create FileTemplateKC Provider. Invalid Template. Exactly one %s expected";
      EXPECT_EQ(thrownBy([&] { FileTemplateKCProvider("/k", "/c", invalid, "/c/%s", environment); }), refused);
      EXPECT_EQ(thrownBy([&] { FileTemplateKCProvider("/k", "/c", "/k/%s", invalid, environment); }), refused);
    }
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(FileTemplateKCProviderTest, EnvironmentDecidesTheFileNames) {
  const std::string long1000(1000, 'e');
  const struct {
    std::string environment;
    std::string key;
    std::string certificate;
  } rows[] = {
      {"", "/prod.key", "/%s/%d prod.crt"},
      {"prod", "/prod.key", "/%s/%d prod.crt"},
      {"Prod", "/etc/keys/device-Prod.key", "Prod"},
      {"prod ", "/etc/keys/device-prod .key", "prod "},
      {"production", "/etc/keys/device-production.key", "production"},
      {"staging", "/etc/keys/device-staging.key", "staging"},
      {"a/b", "/etc/keys/device-a/b.key", "a/b"},
      {"100%s%d", "/etc/keys/device-100%s%d.key", "100%s%d"},
      {long1000, "/etc/keys/device-" + long1000 + ".key", long1000},
  };
  for (const auto& row : rows) {
    const LogCapture log;
    const FileTemplateKCProvider provider("/prod.key", "/%s/%d prod.crt", "/etc/keys/device-%s.key", "%s",
                                          row.environment);
    EXPECT_THAT(log.lines(), ElementsAre("kcProviders/FileTemplateKCProvider: Key/Certificate filenames key: " +
                                         row.key + " certificate " + row.certificate + " "));
  }
}

TEST(FileTemplateKCProviderTest, FilesOfTheEnvironmentAreRead) {
  const TemporaryDirectory directory;
  directory.write("test.key", "test key");
  directory.write("test.crt", "test certificate");
  directory.write("%s.key", "production key");
  directory.write("%s.crt", "production certificate");
  const std::string keyTemplate = directory.file("%s.key");
  const std::string certificateTemplate = directory.file("%s.crt");
  const struct {
    const char* environment;
    const char* key;
    const char* certificate;
  } rows[] = {
      {"test", "test key", "test certificate"},
      {"prod", "production key", "production certificate"},
      {"", "production key", "production certificate"},
  };
  for (const auto& row : rows) {
    FileTemplateKCProvider provider(keyTemplate, certificateTemplate, keyTemplate, certificateTemplate,
                                    row.environment);
    EXPECT_EQ(provider.getPrivateKey(false), row.key);
    EXPECT_EQ(provider.getCertificate(false), row.certificate);
  }
  FileTemplateKCProvider missing(keyTemplate, certificateTemplate, keyTemplate, certificateTemplate, "other");
  EXPECT_EQ(thrownBy([&] { missing.getPrivateKey(false); }),
            "KCException: Couldn't open key/certificate file " + directory.file("other.key"));
}

TEST(FileTemplateKCProviderTest, FileNamesAreLoggedAtInfo) {
  EXPECT_TRUE(isLoggedAt(LOG_LEVEL_INFO,
                         "kcProviders/FileTemplateKCProvider: Key/Certificate filenames key: k-a certificate c-a ",
                         [] { FileTemplateKCProvider("k", "c", "k-%s", "c-%s", "a"); }));
}

TEST(FileTemplateKCProviderTest, CloudUrlIsNotSupported) {
  FileTemplateKCProvider provider("k", "c", "k-%s", "c-%s", "a");
  EXPECT_FALSE(provider.isCloudUrlSupported());
  EXPECT_EQ(thrownBy([&] { provider.getCloudUrl(true); }),
            "KCException: Cloud URL retrieval is not supported by the certificate provider");
}

}  // namespace
}  // namespace test
