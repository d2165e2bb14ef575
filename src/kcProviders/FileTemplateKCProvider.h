#pragma once

#include <cstddef>
#include <string>

#include "kcProviders/FileKeyCertificateProvider.h"

namespace velo::ssoService {

/// How often a pattern stands in a text, overlaps not counted; 0 for an empty pattern.
std::size_t countOccurrences(const std::string& text, const std::string& pattern);

/// Whether a file name template holds exactly one "%s" and no other "%".
bool isValidTemplate(const std::string& fileNameTemplate);

/// Reads the key and the certificate from files whose names depend on the cloud environment: the production names when
/// it is empty or "prod", otherwise the templates with "%s" replaced by the environment.
class FileTemplateKCProvider : public FileKeyCertificateProvider {
 public:
  /// Throws KCException when a template is not valid.
  FileTemplateKCProvider(const std::string& prodKeyPath, const std::string& prodCertificatePath,
                         const std::string& keyTemplate, const std::string& certificateTemplate,
                         const std::string& environment);
  ~FileTemplateKCProvider() override = default;

  bool isCloudUrlSupported() override { return false; }

  /// The template test under the provider's name.
  static bool isValidTemplate(const std::string& text) { return ssoService::isValidTemplate(text); }
  static std::size_t countOccurrences(const std::string& text, const std::string& pattern) {
    return ssoService::countOccurrences(text, pattern);
  }
};

}  // namespace velo::ssoService
