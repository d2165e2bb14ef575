#pragma once

#include <string>
#include <utility>
#include <vector>

namespace test {

/// A private key and a self-signed certificate of it, PEM texts. Keys are made once a process.
struct TestIdentity {
  std::string privateKey;
  std::string certificate;
};

/// The attributes of a subject in order: short name and value.
using Subject = std::vector<std::pair<std::string, std::string>>;

const TestIdentity& deviceIdentity();  ///< RSA-2048, /CN=device-0001
const TestIdentity& otherIdentity();   ///< another RSA-2048 key, /CN=device-0002
const TestIdentity& smallIdentity();   ///< RSA-1024, /CN=device-0001
const TestIdentity& curveIdentity();   ///< P-256, /CN=device-0001

/// A new certificate of deviceIdentity's key.
std::string certificateWithSubject(const Subject& subject);

/// A certificate whose text parses while its public key is of a kind that nothing knows.
std::string certificateWithUnusableKey();

/// A certificate's public key as PEM text (SubjectPublicKeyInfo).
std::string publicKeyOf(const std::string& certificate);

/// deviceIdentity's private key, encrypted with this pass phrase.
std::string encryptedPrivateKey(const std::string& passPhrase);

/// Whether the bytes are an RSA signature (PKCS #1 version 1.5, SHA-256) over the text by the certificate's key.
bool verifiesRs256(const std::string& certificate, const std::string& text, const std::string& signature);

}  // namespace test
