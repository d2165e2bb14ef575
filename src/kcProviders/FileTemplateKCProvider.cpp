#include "kcProviders/FileTemplateKCProvider.h"

#include "KCException.h"
#include "logging/logging.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "kcProviders/FileTemplateKCProvider";
constexpr const char* PLACEHOLDER = "%s";
constexpr const char* PRODUCTION_ENVIRONMENT = "prod";

std::string fillTemplate(std::string fileNameTemplate, const std::string& environment) {
  return fileNameTemplate.replace(fileNameTemplate.find(PLACEHOLDER), 2, environment);
}

}  // namespace

std::size_t countOccurrences(const std::string& text, const std::string& pattern) {
  if (pattern.empty()) {
    return 0;
  }
  std::size_t count = 0;
  for (std::size_t found = text.find(pattern); found != std::string::npos;
       found = text.find(pattern, found + pattern.size())) {
    ++count;
  }
  return count;
}

bool isValidTemplate(const std::string& fileNameTemplate) {
  return countOccurrences(fileNameTemplate, PLACEHOLDER) == 1 && countOccurrences(fileNameTemplate, "%") == 1;
}

FileTemplateKCProvider::FileTemplateKCProvider(const std::string& prodKeyPath, const std::string& prodCertificatePath,
                                               const std::string& keyTemplate, const std::string& certificateTemplate,
                                               const std::string& environment)
    : FileKeyCertificateProvider("", "") {
  if (!isValidTemplate(keyTemplate) || !isValidTemplate(certificateTemplate)) {
    throw KCException("Cannout create FileTemplateKC Provider. Invalid Template. Exactly one %s expected");
  }
  if (environment.empty() || environment == PRODUCTION_ENVIRONMENT) {
    keyPath = prodKeyPath;
    certificatePath = prodCertificatePath;
  } else {
    keyPath = fillTemplate(keyTemplate, environment);
    certificatePath = fillTemplate(certificateTemplate, environment);
  }
  LOG_INFO("Key/Certificate filenames key: %s certificate %s ", keyPath.c_str(), certificatePath.c_str());
}

}  // namespace velo::ssoService
