#include "support/ScriptedProvider.h"

#include "KCException.h"

namespace test {

ScriptedProvider::ScriptedProvider(const TestIdentity& identity)
    : privateKeySource([text = identity.privateKey] { return text; }),
      certificateSource([text = identity.certificate] { return text; }) {
}

std::string ScriptedProvider::getPrivateKey(bool reload) {
  record("getPrivateKey", reload);
  return privateKeySource();
}

std::string ScriptedProvider::getCertificate(bool reload) {
  record("getCertificate", reload);
  return certificateSource();
}

bool ScriptedProvider::isCloudUrlSupported() {
  return cloudUrlSupported;
}

std::string ScriptedProvider::getPublicKey(bool reload) {
  record("getPublicKey", reload);
  return publicKeySource ? publicKeySource() : KeyCertificateProvider::getPublicKey(reload);
}

std::string ScriptedProvider::getCertificateId(bool reload) {
  record("getCertificateId", reload);
  return certificateIdSource ? certificateIdSource() : KeyCertificateProvider::getCertificateId(reload);
}

ScriptedProvider::Source ScriptedProvider::fails(const std::string& text) {
  return [text]() -> std::string { throw velo::ssoService::KCException(text); };
}

void ScriptedProvider::record(const char* operation, bool reload) {
  calls.push_back(std::string(operation) + (reload ? "(true)" : "(false)"));
}

}  // namespace test
