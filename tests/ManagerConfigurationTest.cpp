// What the manager takes from its configuration file, and each message about what is wrong with one. How the process
// ends for a rejected file is tested with the run loop.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "DiscoverySSOManager.h"
#include "apiProviders/framing/ApiClient.h"
#include "support/DeadPorts.h"
#include "support/LogCapture.h"
#include "support/LoggedAt.h"
#include "support/TemporaryDirectory.h"
#include "support/TestClock.h"
#include "support/TestIdentity.h"
#include "support/Thrown.h"

namespace test {
namespace {

using namespace std::string_literals;
using velo::ssoService::DiscoverySSOManager;
using Lines = std::vector<std::string>;

const std::string CLOUD = R"({"url":"http://127.0.0.1:9/","cache_enabled":false})";
const Lines CLOUD_LINES = {"Configuring cloud settings", "Cloud URL: http://127.0.0.1:9/. Cache is not used."};
const std::string PROVIDER = R"({"type":"file","key_path":"/k","certificate_path":"/c"})";
const Lines PROVIDER_LINES = {"Certificate provider type: file",
                              "Certificate provider type: file successfully created"};
const Lines API_LINES = {"Configuring SSO API Providers", "Number of SSO API Providers: 0"};

/// A file's text and the lines that it is answered with, after the one that names the file. "{path}" stands for the
/// file's name.
struct Row {
  std::string text;
  Lines lines;
};

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Row whole(const std::string& text, const Lines& lines) {
  return {text, lines};
}

/// With these contents of the sso section.
Row withSections(const std::string& sections, const Lines& lines) {
  return {R"({"sso":{)" + sections + "}}", lines};
}

Row withCloud(const std::string& section, const Lines& lines) {
  return withSections(
      R"("cloud_config":)" + section + R"(,"certificate_provider":)" + PROVIDER + R"(,"api_providers":[])", lines);
}

Row withProvider(const std::string& section, const Lines& lines) {
  return withSections(R"("cloud_config":)" + CLOUD + R"(,"certificate_provider":)" + section + R"(,"api_providers":[])",
                      CLOUD_LINES + lines);
}

Row withApis(const std::string& section, const Lines& lines) {
  return withSections(
      R"("cloud_config":)" + CLOUD + R"(,"certificate_provider":)" + PROVIDER + R"(,"api_providers":)" + section,
      CLOUD_LINES + PROVIDER_LINES + lines);
}

std::string withSocket(const std::string& port) {
  return withApis(R"([{"type":"socket","port":)" + port + "}]", {}).text;
}

bool startsApiThreads(const Row& row) {
  return std::count(row.lines.begin(), row.lines.end(), "Starting SSO API Provider: socket") > 0;
}

Lines errorsAmong(Lines lines) {
  const auto isInformation = [](const std::string& line) {
    for (const char* start : {"Reading configuration", "Configuring ", "Cloud URL: ", "Certificate provider type: ",
                              "Number of ", "SSO Provider type: ", "kcProviders/FileTemplateKCProvider: "}) {
      if (line.rfind(start, 0) == 0) {
        return true;
      }
    }
    return false;
  };
  lines.erase(std::remove_if(lines.begin(), lines.end(), isInformation), lines.end());
  return lines;
}

/// A manager that is never destroyed, as its API threads go on using it.
DiscoverySSOManager& startManager(const std::string& configPath, const std::string& environment = "") {
  static auto& kept = *new std::vector<std::unique_ptr<DiscoverySSOManager>>;
  kept.push_back(std::make_unique<DiscoverySSOManager>(configPath, environment));
  return *kept.back();
}

/// Waits until each API thread that was started listens or has failed to.
void awaitApiThreads(const LogCapture& log) {
  const auto isSettled = [&] {
    int open = 0;
    for (const std::string& line : log.lines()) {
      open += line == "DiscoverySSOManager: SSO API provider type: socket successfully created" ? 1 : 0;
      open -= line == "apiProviders/SsoApiSocketProvider: SSO API Server listening" ? 1 : 0;
      open -= line == "apiProviders/SsoApiSocketProvider: SSO API socket bind failed " ? 1 : 0;
    }
    return open == 0;
  };
  EXPECT_TRUE(await(isSettled));
}

class ManagerConfigurationTest : public ::testing::Test {
 protected:
  std::string path() const { return directory.file("configuration.json"); }

  /// The lines of a manager that is made from this text; those of its API threads come when they like and are left out.
  Lines linesOf(const std::string& text, const std::string& environment, int level) const {
    directory.write("configuration.json", text);
    const LogCapture log(level);
    startManager(path(), environment);
    awaitApiThreads(log);
    Lines lines = log.lines();
    const auto isApiLine = [](const std::string& line) { return line.rfind("apiProviders/", 0) == 0; };
    lines.erase(std::remove_if(lines.begin(), lines.end(), isApiLine), lines.end());
    return lines;
  }

  /// The manager's lines as the log shows them. Other sources' are given with their source.
  Lines shown(Lines lines) const {
    for (std::string& line : lines) {
      const std::size_t place = line.find("{path}");
      if (place != std::string::npos) {
        line.replace(place, 6, path());
      }
      if (line.rfind("kcProviders/", 0) != 0) {
        line.insert(0, "DiscoverySSOManager: ");
      }
    }
    return lines;
  }

  /// All of the row's lines at level info, and below it only those that tell errors.
  void expect(const Row& row, const std::string& environment = "") const {
    SCOPED_TRACE(row.text);
    const Lines lines = Lines{"Reading configuration from {path}"} + row.lines;
    EXPECT_EQ(linesOf(row.text, environment, LOG_LEVEL_INFO), shown(lines));
    if (!startsApiThreads(row)) {  // their start could not be awaited without the lines of level info
      for (const int level : {LOG_LEVEL_WARNING, LOG_LEVEL_ERROR}) {
        EXPECT_EQ(linesOf(row.text, environment, level), shown(errorsAmong(lines)));
      }
    }
  }

  TemporaryDirectory directory;
};

TEST_F(ManagerConfigurationTest, FileThatCannotBeOpenedIsTold) {
  for (const std::string& name : {directory.file("missing.json"), directory.file("%s%n.json"), std::string()}) {
    SCOPED_TRACE(name);
    const LogCapture log(LOG_LEVEL_ERROR);
    const DiscoverySSOManager manager(name, "");
    EXPECT_EQ(log.lines(), Lines{"DiscoverySSOManager: Unable to open configuration file " + name});
  }
}

TEST_F(ManagerConfigurationTest, DirectoryIsAnEmptyFile) {
  const LogCapture log;
  const DiscoverySSOManager manager(directory.path(), "");
  EXPECT_EQ(log.lines(), (Lines{"DiscoverySSOManager: Reading configuration from " + directory.path(),
                                "DiscoverySSOManager: Error processing configuration file " + directory.path() +
                                    ", error Input is not a valid object "}));
}

TEST_F(ManagerConfigurationTest, FileThatDoesNotParseIsTold) {
  const auto failed = [](const char* reason) {
    return Lines{"Error processing configuration file {path}, error "s + reason + " "};
  };
  const Row table[] = {
      whole("", failed("Input is not a valid object")),
      whole("sso=1", failed("Input is not a valid object")),
      whole("{", failed("Input is not a valid object")),
      whole(R"({"sso":)", failed("Input was only whitespace")),
      whole(R"({"sso":{},"sso":{}})", failed("Key conflict")),
      whole(R"({"":{}})", failed("Missing key")),
      withSections(R"("cloud_config":{},"cloud_config":{})", failed("Key conflict")),
      withCloud(R"({"url":"a","url":"b"})", failed("Key conflict")),
  };
  for (const Row& row : table) {
    expect(row);
  }
}

TEST_F(ManagerConfigurationTest, MissingSectionsAreTold) {
  const Lines noSso = {"Configuration file {path} is missing sso section"};
  const Lines noCloud = {"Configuration file {path} is missing sso.cloud_config section"};
  const Lines noProvider = CLOUD_LINES + Lines{"Configuration file {path} is missing sso.certificate_provider section"};
  const Lines noApis =
      CLOUD_LINES + PROVIDER_LINES + Lines{"Configuration file is missing sso.api_providers ARRAY section"};
  const std::string cloud = R"("cloud_config":)" + CLOUD;
  const std::string provider = cloud + R"(,"certificate_provider":)" + PROVIDER;
  const Row table[] = {
      whole("{}", noSso),
      whole("[]", noSso),
      whole(R"([{"sso":{}}])", noSso),
      whole(R"({"SSO":{}})", noSso),
      whole(R"({"sso":5})", noSso),
      whole(R"({"sso":"text"})", noSso),
      whole(R"({"sso":null})", noSso),
      whole(R"({"sso":{}} and more)", noCloud),
      whole(R"({"sso":[]})", noCloud),  // an array counts as an object
      withSections("", noCloud),
      withSections(R"("cloud_config":"text")", noCloud),
      withSections(R"("Cloud_config":{})", noCloud),
      withSections(cloud, noProvider),
      withSections(cloud + R"(,"certificate_provider":"file")", noProvider),
      withSections(provider, noApis),
      withSections(provider + R"(,"api_providers":{})", noApis),
      withSections(provider + R"(,"api_providers":{"type":"socket","port":0})", noApis),
      withSections(provider + R"(,"api_providers":"[]")", noApis),
      withSections(provider + R"(,"api_providers":null)", noApis),
  };
  for (const Row& row : table) {
    expect(row);
  }
}

TEST_F(ManagerConfigurationTest, WholeFileIsApplied) {
  expect(withApis("[]", API_LINES));
}

TEST_F(ManagerConfigurationTest, LoggingKeysAndOthersDoNotMatter) {
  expect(whole(R"({"other":1,"sso":{"other":[],"log_level":5,"api_providers":[],"certificate_provider":)" + PROVIDER +
                   R"(,"cloud_config":)" + CLOUD + "}}",
               CLOUD_LINES + PROVIDER_LINES + API_LINES));
}

TEST_F(ManagerConfigurationTest, CloudSection) {
  const Lines start = {"Configuring cloud settings"};
  const auto incomplete = [&](const char* reason) {
    return start + Lines{reason, "Cloud configuration in {path} file is incomplete "};
  };
  const Lines noUrl = incomplete("Configuration file is missing sso.cloud_config.url ");
  const Lines noCache = incomplete("Configuration file is missing sso.cloud_config.cahe_enabled ");
  const Lines noFolder = incomplete("Configuration file is missing sso.cloud_config.cahe_folder ");
  const auto applied = [&](const char* settings) { return start + Lines{settings} + PROVIDER_LINES + API_LINES; };
  const Row table[] = {
      withCloud("{}", noUrl),
      withCloud("[]", noUrl),  // an array counts as an object
      withCloud(R"({"url":5,"cache_enabled":false})", noUrl),
      withCloud(R"({"url":null,"cache_enabled":false})", noUrl),
      withCloud(R"({"url":["u"],"cache_enabled":false})", noUrl),
      withCloud(R"({"URL":"u","cache_enabled":false})", noUrl),
      withCloud(R"({"url":"u"})", noCache),
      withCloud(R"({"url":"u","cache_enabled":"true"})", noCache),
      withCloud(R"({"url":"u","cache_enabled":"false"})", noCache),
      withCloud(R"({"url":"u","cache_enabled":1})", noCache),
      withCloud(R"({"url":"u","cache_enabled":null})", noCache),
      withCloud(R"({"url":"u","cahe_enabled":true})", noCache),
      withCloud(R"({"url":"u","cache_enabled":true})", noFolder),
      withCloud(R"({"url":"u","cache_enabled":true,"cache_folder":5})", noFolder),
      withCloud(R"({"url":"u","cache_enabled":true,"cache_folder":null})", noFolder),
      withCloud(R"({"url":"u","cache_enabled":false})", applied("Cloud URL: u. Cache is not used.")),
      withCloud(R"({"url":"","cache_enabled":false})", applied("Cloud URL: . Cache is not used.")),
      withCloud(R"({"url":"%s%n","cache_enabled":false})", applied("Cloud URL: %s%n. Cache is not used.")),
      withCloud(R"({"url":"u","cache_enabled":false,"cache_folder":5})", applied("Cloud URL: u. Cache is not used.")),
      withCloud(R"({"url":"http://cloud/","cache_enabled":true,"cache_folder":"/var/cache"})",
                applied("Cloud URL: http://cloud/. Cached cloud config stored in /var/cache directory.")),
      withCloud(R"({"url":"u","cache_enabled":true,"cache_folder":""})",
                applied("Cloud URL: u. Cached cloud config stored in  directory.")),
  };
  for (const Row& row : table) {
    expect(row);
  }
}

TEST_F(ManagerConfigurationTest, CertificateProviderType) {
  const Lines rejected = {"Certificate Provider couldn't be configured "};
  const Lines noType = Lines{"Configuration file is missing sso.certificate_provider.type"} + rejected;
  const auto unsupported = [&](const std::string& type) {
    return Lines{"Certificate provider type: " + type, "Unsupported certificate provider type: " + type} + rejected;
  };
  const Row table[] = {
      withProvider("{}", noType),
      withProvider("[]", noType),  // an array counts as an object
      withProvider(R"({"type":5})", noType),
      withProvider(R"({"type":["file"]})", noType),
      withProvider(R"({"Type":"file"})", noType),
      withProvider(R"({"type":"File","key_path":"/k","certificate_path":"/c"})", unsupported("File")),
      withProvider(R"({"type":"orvex","port":5000})", unsupported("orvex")),
      withProvider(R"({"type":"file-Template"})", unsupported("file-Template")),
      withProvider(R"({"type":"file "})", unsupported("file ")),
      withProvider(R"({"type":""})", unsupported("")),
      withProvider(R"({"type":"%s%n"})", unsupported("%s%n")),
  };
  for (const Row& row : table) {
    expect(row);
  }
}

TEST_F(ManagerConfigurationTest, FileProvider) {
  const Lines missing = {
      "Certificate provider type: file",
      "Configuration file is missing sso.certificate_provider.key_path or sso.certificate_provider.certificate_path",
      "Certificate Provider couldn't be configured "};
  const Row table[] = {
      withProvider(R"({"type":"file"})", missing),
      withProvider(R"({"type":"file","key_path":"/k"})", missing),
      withProvider(R"({"type":"file","certificate_path":"/c"})", missing),
      withProvider(R"({"type":"file","key_path":5,"certificate_path":"/c"})", missing),
      withProvider(R"({"type":"file","key_path":"/k","certificate_path":null})", missing),
      withProvider(R"({"type":"file","key_path":"","certificate_path":""})", PROVIDER_LINES + API_LINES),
  };
  for (const Row& row : table) {
    expect(row);
  }
}

/// A file-template section with one member replaced or, for an empty value, left out.
std::string templateSection(const std::string& changedKey = "", const std::string& value = "") {
  std::string section = R"({"type":"file-template")";
  const std::pair<const char*, const char*> members[] = {{"prod_key_path", R"("/p/key")"},
                                                         {"prod_certificate_path", R"("/p/certificate")"},
                                                         {"key_template", R"("/t/key-%s")"},
                                                         {"certificate_template", R"("/t/certificate-%s")"}};
  for (const auto& [key, usual] : members) {
    const std::string written = key == changedKey ? value : usual;
    if (!written.empty()) {
      section += ",\""s + key + "\":" + written;
    }
  }
  return section + "}";
}

TEST_F(ManagerConfigurationTest, FileTemplateProviderNeedsItsMembers) {
  const Lines missing = {
      "Certificate provider type: file-template",
      "Configuration file: sso.certificate_provider.prod_key_path, sso.certificate_provider.prod_certificate_path, "
      "sso.certificate_provider.key_template, sso.certificate_provider.certificate_template required for "
      "file-template",
      "Certificate Provider couldn't be configured "};
  for (const char* key : {"prod_key_path", "prod_certificate_path", "key_template", "certificate_template"}) {
    for (const char* value : {"", "5", "null", R"(["/t/%s"])"}) {
      expect(withProvider(templateSection(key, value), missing));
    }
  }
}

TEST_F(ManagerConfigurationTest, FileTemplatesNeedExactlyOnePlace) {
  const Lines rejected = {
      "Certificate provider type: file-template",
      "Configuration file: exactly 1 occurence of %s in each sso.certificate_provider.key_template and "
      "sso.certificate_provider.certificate_template required for file-template",
      "Certificate Provider couldn't be configured "};
  for (const char* key : {"key_template", "certificate_template"}) {
    for (const char* value : {R"("")", R"("/t/key")", R"("/t/%s-%s")", R"("/t/%d-%s")", R"("/t/%%s")", R"("/t/%")"}) {
      expect(withProvider(templateSection(key, value), rejected));
    }
  }
}

TEST_F(ManagerConfigurationTest, FileTemplateProviderGetsTheTemplatesInThePlacesOfTheProductionNames) {
  const auto created = [](const std::string& key, const std::string& certificate) {
    return Lines{"Certificate provider type: file-template",
                 "kcProviders/FileTemplateKCProvider: Key/Certificate filenames key: " + key + " certificate " +
                     certificate + " ",
                 "Certificate provider type: file-template successfully created"} +
           API_LINES;
  };
  struct {
    const char* environment;
    Lines lines;
  } const table[] = {{"", created("/t/key-%s", "/t/certificate-%s")},
                     {"prod", created("/t/key-%s", "/t/certificate-%s")},
                     {"Prod", created("/t/key-Prod", "/t/certificate-Prod")},
                     {"staging", created("/t/key-staging", "/t/certificate-staging")},
                     {"%d", created("/t/key-%d", "/t/certificate-%d")}};
  for (const auto& row : table) {
    SCOPED_TRACE(row.environment);
    expect(withProvider(templateSection(), row.lines), row.environment);
    expect(withProvider(templateSection("prod_key_path", R"("")"), row.lines), row.environment);
  }
}

TEST_F(ManagerConfigurationTest, ProductionNamesAreNeverOpened) {
  directory.write("production.crt", deviceIdentity().certificate);
  directory.write(
      "configuration.json",
      withProvider(R"({"type":"file-template","prod_key_path":")" + directory.file("production.key") +
                       R"(","prod_certificate_path":")" + directory.file("production.crt") + R"(","key_template":")" +
                       directory.file("%s.key") + R"(","certificate_template":")" + directory.file("%s.crt") + R"("})",
                   {})
          .text);
  DiscoverySSOManager manager(path(), "");
  manager.initialize();
  EXPECT_EQ(thrownBy([&] { manager.getToken("x"); }),
            "SsoException: Cloud discovery failed. Couldn't open key/certificate file " + directory.file("%s.crt"));
}

TEST_F(ManagerConfigurationTest, OrvexProvider) {
  const Lines type = {"Certificate provider type: Orvex"};
  const Lines missing = type + Lines{"Configuration file: sso.certificate_provider.port required for Orvex",
                                     "Certificate Provider couldn't be configured "};
  const Lines outOfRange = type + Lines{"Error processing configuration file {path}, error stoi "};
  const Lines created = type + Lines{"Certificate provider type: Orvex successfully created"} + API_LINES;
  const auto port = [](const std::string& text) { return R"({"type":"Orvex","port":)" + text + "}"; };
  const Row table[] = {
      withProvider(R"({"type":"Orvex"})", missing),
      withProvider(port(R"("5000")"), missing),
      withProvider(port("true"), missing),
      withProvider(port("null"), missing),
      withProvider(port("[5000]"), missing),
      withProvider(port("{}"), missing),
      withProvider(port("5000"), created),
      withProvider(port("5000.7"), created),
      withProvider(port("0"), created),
      withProvider(port("-1"), created),
      withProvider(port("70000"), created),
      withProvider(port("2147483647"), created),
      withProvider(port("-2147483648"), created),
      withProvider(port("2147483648"), outOfRange),
      withProvider(port("-2147483649"), outOfRange),
      withProvider(port("99999999999999999999999"), outOfRange),
  };
  for (const Row& row : table) {
    expect(row);
  }
}

TEST_F(ManagerConfigurationTest, ApiProviders) {
  const auto count = [](int number) {
    return Lines{"Configuring SSO API Providers", "Number of SSO API Providers: " + std::to_string(number)};
  };
  const Lines rejected = {"SSO API Provider couldn't be configured "};
  const Lines noType = Lines{"Configuration file is missing type for an api_provider"} + rejected;
  const auto unsupported = [&](const std::string& type) {
    return Lines{"SSO Provider type: " + type, "Unsupported certificate provider type: "} + rejected;
  };
  const Lines noPort =
      Lines{"SSO Provider type: socket", "Configuration file is missing port for socket api provider"} + rejected;
  const Lines starting = {"SSO Provider type: socket", "Starting SSO API Provider: socket"};
  const Lines outOfRange = starting + Lines{"Error processing configuration file {path}, error stoi "};
  const Lines noObject = {"Error processing configuration file {path}, error Input is not a valid object "};
  const Lines created = starting + Lines{"SSO API provider type: socket successfully created"};
  const std::string good = R"({"type":"socket","port":0})";
  const Row table[] = {
      withApis("[]", count(0)),
      withApis("[{}]", count(1) + noType),
      withApis("[[]]", count(1) + noType),  // an array counts as an object
      withApis(R"([{"type":5}])", count(1) + noType),
      withApis("[5]", count(1) + noObject),
      withApis(R"(["socket"])", count(1) + noObject),
      withApis("[null]", count(1) + noObject),
      withApis(R"([{"type":"Socket","port":0}])", count(1) + unsupported("Socket")),
      withApis(R"([{"type":"pipe"}])", count(1) + unsupported("pipe")),
      withApis(R"([{"type":""}])", count(1) + unsupported("")),
      withApis(R"([{"type":"socket"}])", count(1) + noPort),
      withApis(R"([{"type":"socket","port":"0"}])", count(1) + noPort),
      withApis(R"([{"type":"socket","port":null}])", count(1) + noPort),
      withApis(R"([{"type":"socket","port":[0]}])", count(1) + noPort),
      withApis(R"([{"type":"socket","port":2147483648}])", count(1) + outOfRange),
      withApis(R"([{"type":"socket","port":-2147483649}])", count(1) + outOfRange),
      withApis("[" + good + "]", count(1) + created),
      withApis("[" + good + "," + good + "]", count(2) + created + created),
      withApis("[" + good + R"(,{"type":"pipe"},{"type":"x"}])", count(3) + created + unsupported("pipe")),
      withApis("[" + good + ",{}]", count(2) + created + noType),
  };
  for (const Row& row : table) {
    expect(row);
  }
}

TEST_F(ManagerConfigurationTest, ApiPortIsTheLeadingDigitsTakenAsSixteenBits) {
  const std::string refused = frame(R"({"status":"error","message":"Cloud discovery failed. "})");
  struct {
    const char* name;
    std::function<std::string(int)> written;
  } const table[] = {
      {"as it is", [](int port) { return std::to_string(port); }},
      {"with a fraction", [](int port) { return std::to_string(port) + ".7"; }},
      {"with an exponent", [](int port) { return std::to_string(port) + "e3"; }},
      {"too large", [](int port) { return std::to_string(port + 65536); }},
      {"negative", [](int port) { return std::to_string(port - 65536); }},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    const int port = freePort();
    linesOf(withSocket(row.written(port)), "", LOG_LEVEL_INFO);
    EXPECT_EQ(ask(port, R"({"request":"token","scope":"x"})"), refused);
  }
}

TEST_F(ManagerConfigurationTest, ApiProviderGoesOnWhenALaterOneIsRejected) {
  const int port = freePort();
  linesOf(withApis(R"([{"type":"socket","port":)" + std::to_string(port) + R"(},{"type":"pipe"}])", {}).text, "",
          LOG_LEVEL_INFO);
  EXPECT_EQ(ask(port, R"({"request":"certificate_id"})"),
            frame(R"({"status":"error","message":"Cloud discovery failed. System is not initialized"})"));
}

TEST_F(ManagerConfigurationTest, PortThatIsTakenIsNotSeenHere) {
  const ClosedPort taken;
  static std::atomic<bool> isPausing{false};
  replacePause([](std::chrono::seconds) {
    isPausing = true;
    for (;;) {
      ::pause();  // there is nothing more to see
    }
  });
  expect(withApis(R"([{"type":"socket","port":)" + std::to_string(taken.port()) + "}]",
                  {"Configuring SSO API Providers", "Number of SSO API Providers: 1", "SSO Provider type: socket",
                   "Starting SSO API Provider: socket", "SSO API provider type: socket successfully created"}));
  EXPECT_TRUE(await([] { return isPausing.load(); }));
  replacePause({});
}

TEST_F(ManagerConfigurationTest, MessagesAboutAStartedApiProviderAreInformation) {
  for (const char* message : {"SSO Provider type: socket", "Starting SSO API Provider: socket",
                              "SSO API provider type: socket successfully created"}) {
    EXPECT_TRUE(isLoggedAt(LOG_LEVEL_INFO, shown({message})[0], [&] {
      const int port = freePort();
      directory.write("configuration.json", withSocket(std::to_string(port)));
      startManager(path());
      ApiClient(port).close();  // its thread is there by now
    }));
  }
}

}  // namespace
}  // namespace test
