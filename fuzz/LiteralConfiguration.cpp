#include "LiteralConfiguration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <stdexcept>

#include "LiteralDocument.h"

namespace fuzz {
namespace {

using json::jtype;

/// What ends the reading, with the last line.
struct Rejection {
  std::string line;
};

bool hasText(const DocumentModel& section, const std::string& key) {
  return hasMember(section, key, jtype::jstring);
}

bool hasTexts(const DocumentModel& section, std::initializer_list<const char*> keys) {
  return std::all_of(keys.begin(), keys.end(), [&](const char* key) { return hasText(section, key); });
}

int readInt(const DocumentModel& section, const std::string& key) {
  const long long value = std::strtoll(memberText(section, key).c_str(), nullptr, 10);
  if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max()) {
    throw std::out_of_range("stoi");
  }
  return static_cast<int>(value);
}

/// Exactly one "%s" and no other "%".
bool isTemplate(const std::string& text) {
  return std::count(text.begin(), text.end(), '%') == 1 && text.find("%s") != std::string::npos;
}

std::string fill(std::string text, const std::string& environment) {
  return environment.empty() || environment == "prod" ? text : text.replace(text.find("%s"), 2, environment);
}

/// Reads section after section into the outcome. A throw, of a Rejection or another, ends it.
class Configuration {
 public:
  Configuration(ConfigurationOutcome& read, std::string file, std::string cloudEnvironment)
      : outcome(read), path(std::move(file)), environment(std::move(cloudEnvironment)) {}

  void read(const DocumentModel& document) {
    const DocumentModel sso = section(document, "sso", "sso");
    const DocumentModel cloud = section(sso, "cloud_config", "sso.cloud_config");
    within("1 Cloud configuration in " + path + " file is incomplete ", [&] { readCloud(cloud); });
    const DocumentModel provider = section(sso, "certificate_provider", "sso.certificate_provider");
    within("1 Certificate Provider couldn't be configured ", [&] { readProvider(provider); });
    if (!hasMember(sso, "api_providers", jtype::jarray)) {
      throw Rejection{"1 Configuration file is missing sso.api_providers ARRAY section"};
    }
    const DocumentModel entries = memberDocument(sso, "api_providers");
    within("1 SSO API Provider couldn't be configured ", [&] { readApiProviders(entries); });
  }

 private:
  void log(const std::string& line) { outcome.lines.push_back(line); }

  DocumentModel section(const DocumentModel& parent, const std::string& key, const std::string& name) {
    if (!hasContainer(parent, key)) {
      throw Rejection{"1 Configuration file " + path + " is missing " + name + " section"};
    }
    return memberDocument(parent, key);
  }

  /// A step whose rejection is followed by a line that sums it up.
  template <typename Step>
  void within(const std::string& summary, Step step) {
    try {
      step();
    } catch (const Rejection& rejection) {
      log(rejection.line);
      throw Rejection{summary};
    }
  }

  void readCloud(const DocumentModel& cloud) {
    log("3 Configuring cloud settings");
    if (!hasText(cloud, "url")) {
      throw Rejection{"1 Configuration file is missing sso.cloud_config.url "};
    }
    if (!hasMember(cloud, "cache_enabled", jtype::jbool)) {
      throw Rejection{"1 Configuration file is missing sso.cloud_config.cahe_enabled "};
    }
    outcome.url = memberText(cloud, "url");
    if (memberText(cloud, "cache_enabled") != "true") {
      return log("3 Cloud URL: " + outcome.url + ". Cache is not used.");
    }
    if (!hasText(cloud, "cache_folder")) {
      throw Rejection{"1 Configuration file is missing sso.cloud_config.cahe_folder "};
    }
    log("3 Cloud URL: " + outcome.url + ". Cached cloud config stored in " + memberText(cloud, "cache_folder") +
        " directory.");
  }

  void readProvider(const DocumentModel& provider) {
    if (!hasText(provider, "type")) {
      throw Rejection{"1 Configuration file is missing sso.certificate_provider.type"};
    }
    const std::string type = memberText(provider, "type");
    log("3 Certificate provider type: " + type);
    if (type == "file") {
      readFileProvider(provider);
    } else if (type == "file-template") {
      readTemplateProvider(provider);
    } else if (type == "Orvex") {
      readKeyService(provider);
    } else {
      throw Rejection{"1 Unsupported certificate provider type: " + type};
    }
    log("3 Certificate provider type: " + type + " successfully created");
  }

  void readFileProvider(const DocumentModel& provider) {
    if (!hasTexts(provider, {"key_path", "certificate_path"})) {
      throw Rejection{
          "1 Configuration file is missing sso.certificate_provider.key_path or "
          "sso.certificate_provider.certificate_path"};
    }
    outcome.certificateFile = memberText(provider, "certificate_path");
  }

  void readTemplateProvider(const DocumentModel& provider) {
    if (!hasTexts(provider, {"prod_key_path", "prod_certificate_path", "key_template", "certificate_template"})) {
      throw Rejection{
          "1 Configuration file: sso.certificate_provider.prod_key_path, "
          "sso.certificate_provider.prod_certificate_path, sso.certificate_provider.key_template, "
          "sso.certificate_provider.certificate_template required for file-template"};
    }
    const std::string key = memberText(provider, "key_template");
    const std::string certificate = memberText(provider, "certificate_template");
    if (!isTemplate(key) || !isTemplate(certificate)) {
      throw Rejection{
          "1 Configuration file: exactly 1 occurence of %s in each "
          "sso.certificate_provider.key_template and sso.certificate_provider.certificate_template "
          "required for file-template"};
    }
    outcome.certificateFile = fill(certificate, environment);
    log("3 Key/Certificate filenames key: " + fill(key, environment) + " certificate " + outcome.certificateFile + " ");
  }

  void readKeyService(const DocumentModel& provider) {
    if (!hasMember(provider, "port", jtype::jnumber)) {
      throw Rejection{"1 Configuration file: sso.certificate_provider.port required for Orvex"};
    }
    outcome.keyServicePort = readInt(provider, "port");
  }

  void readApiProviders(const DocumentModel& entries) {
    log("3 Configuring SSO API Providers");
    log("3 Number of SSO API Providers: " + std::to_string(entries.entries.size()));
    for (const auto& entry : entries.entries) {
      readApiProvider(test::modelParse(entry.second.c_str()));
    }
  }

  void readApiProvider(const DocumentModel& entry) {
    if (!hasText(entry, "type")) {
      throw Rejection{"1 Configuration file is missing type for an api_provider"};
    }
    const std::string type = memberText(entry, "type");
    log("3 SSO Provider type: " + type);
    if (type != "socket") {
      throw Rejection{"1 Unsupported certificate provider type: "};
    }
    if (!hasMember(entry, "port", jtype::jnumber)) {
      throw Rejection{"1 Configuration file is missing port for socket api provider"};
    }
    log("3 Starting SSO API Provider: socket");
    const int port = readInt(entry, "port");
    outcome.providers.push_back(std::to_string(port) + " " + readTimeout(entry));
    log("3 SSO API provider type: socket successfully created");
  }

  /// In whole milliseconds, the nearest.
  std::string readTimeout(const DocumentModel& entry) {
    const std::string key = "client_timeout_seconds";
    if (findMember(entry, key) == nullptr) {
      return "0";
    }
    const bool isNumber = hasMember(entry, key, jtype::jnumber);
    const double seconds = isNumber ? std::atof(memberText(entry, key).c_str()) : 0;
    if (seconds < 0.001 || seconds > 1000000) {
      log("1 Configuration file: sso.api_providers client_timeout_seconds is no number from 0.001 to 1000000");
      return "0";
    }
    return std::to_string(std::llrint(seconds * 1000));
  }

  ConfigurationOutcome& outcome;
  const std::string path;
  const std::string environment;
};

void readLogging(const std::string& path, const DocumentModel& document, std::vector<std::string>& lines) {
  const std::string missing = "1 Configuration file " + path + " is missing sso";
  if (!hasContainer(document, "sso")) {
    lines.insert(lines.end(), {"start (none) 4", missing + " section"});
    return;
  }
  const DocumentModel sso = memberDocument(document, "sso");
  if (!hasText(sso, "log_level")) {
    lines.insert(lines.end(), {"start (none) 4", missing + ".log_level"});
  } else {
    static const std::array<std::string, 5> LEVELS = {"error", "warning", "info", "debug", "verbose"};
    const std::string level = memberText(sso, "log_level");
    const auto found = std::find(LEVELS.begin(), LEVELS.end(), level);
    const std::string number = std::to_string(found == LEVELS.end() ? 0 : found - LEVELS.begin() + 1);
    const std::string prefix = hasText(sso, "log_path") ? memberText(sso, "log_path") : "";
    lines.push_back("start " + (prefix.empty() ? "(none)" : prefix) + " " + number);
    if (prefix.empty()) {
      lines.push_back("2 No sso.log_file specified in configuration file " + path + ". Using stdout instead");
    }
  }
  const std::string key = "log_redact_secrets";
  if (findMember(sso, key) != nullptr && !hasMember(sso, key, jtype::jbool)) {
    lines.push_back("1 Configuration file " + path +
                    ": sso.log_redact_secrets is neither true nor false. Secrets are "
                    "kept out of the log");
  }
}

}  // namespace

std::vector<std::string> readLoggingLiterally(const std::string& path, const std::string* text) {
  if (text == nullptr) {
    return {"start (none) 4", "1 Unable to open configuration file " + path};
  }
  std::vector<std::string> lines;
  try {
    readLogging(path, test::modelParse(text->c_str()), lines);
  } catch (const std::exception& reason) {
    return {"start (none) 4", "1 Error processing configuration file " + path + ", error " + reason.what() + " "};
  }
  return lines;
}

ConfigurationOutcome readConfigurationLiterally(const std::string& path, const std::string* text,
                                                const std::string& environment) {
  ConfigurationOutcome outcome;
  if (text == nullptr) {
    outcome.lines = {"1 Unable to open configuration file " + path};
    return outcome;
  }
  outcome.lines = {"3 Reading configuration from " + path};
  try {
    Configuration(outcome, path, environment).read(test::modelParse(text->c_str()));
    outcome.isAccepted = true;
  } catch (const Rejection& rejection) {
    outcome.lines.push_back(rejection.line);
  } catch (const std::exception& reason) {
    outcome.lines.push_back("1 Error processing configuration file " + path + ", error " + reason.what() + " ");
  }
  return outcome;
}

}  // namespace fuzz
