#include "Discovery.h"

#include <algorithm>
#include <chrono>

#include "KCException.h"
#include "SsoException.h"
#include "json/json.h"
#include "kcProviders/KeyCertificateProvider.h"
#include "logging/logging.h"
#include "util/HttpExchange.h"
#include "util/JsonMembers.h"
#include "util/OpenSsl.h"
#include "util/Secrets.h"
#include "util/Signals.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "Discovery";
constexpr long HTTP_TIMEOUT_SECONDS = 30;
constexpr std::chrono::seconds STOP_GRACE{1};  // for a decryption, which takes ten times as long at worst

/// Logs why the JSON of a reply could not be used, and gives the exception that says so.
SsoException unusableJson(const std::exception& reason) {
  LOG_ERROR("Error processing JSON returned by Discovery Request: %s", reason.what());
  return SsoException(std::string("Error processing JSON returned by Discovery Request.") + reason.what());
}

}  // namespace

Discovery::Discovery(const std::string& endpointUrl, bool useCache, const std::string& folder,
                     KeyCertificateProvider* provider)
    : keyCertificateProvider(provider), url(endpointUrl), cacheEnabled(useCache), cacheFolder(folder) {
  if (url.empty()) {
    throw SsoException("Cannot create Discovery: endpoint URL not specified");
  }
  if (keyCertificateProvider == nullptr) {
    throw KCException("Cannot create Discovery: no certificate provider given");
  }
  if (!cacheFolder.empty() && cacheFolder.back() != '/') {
    cacheFolder += '/';
  }
  deviceId = keyCertificateProvider->getCertificateId(false);
  LOG_INFO("Discovery using device id %s from the certificate", deviceId.c_str());
}

std::string Discovery::getDiscoveryData() {
  if (discoveryData.empty()) {
    retrieveConfiguration();
  }
  return discoveryData;
}

std::string Discovery::getSsoWellKnownUrl() {
  if (ssoWellKnownUrl.empty()) {
    retrieveConfiguration();
  }
  return ssoWellKnownUrl;
}

bool Discovery::hasConfiguration() const {
  return !discoveryData.empty() && !ssoWellKnownUrl.empty();
}

/// One attempt, against the cloud or the backup file.
void Discovery::processDiscovery(bool fromBackup) {
  ssoWellKnownUrl.clear();
  discoveryData.clear();
  if (fromBackup) {
    loadCache();
  } else {
    requestDiscovery();
  }
  decryptData(extractDataTag());
  try {
    findWellKnownUrl();
    if (cacheEnabled && !fromBackup) {
      storeCache();  // Kept: a reply that decrypts and parses is stored even when it lacks the URL.
    }
  } catch (const std::exception& reason) {
    throw unusableJson(reason);
  }
  if (ssoWellKnownUrl.empty()) {
    throw SsoException("config.endpoints.veloIdConfiguration not found");
  }
}

void Discovery::requestDiscovery() {
  LOG_INFO("Making discovery request to %s", url.c_str());
  HttpExchange exchange;
  if (!exchange.isReady()) {
    LOG_ERROR("Curl initialization failed.");
    throw SsoException("Couldn't make discovery request. Curl initialization failed");
  }
  exchange.set(CURLOPT_HTTPGET, 1L);
  exchange.set(CURLOPT_URL, (url + deviceId).c_str());
  exchange.set(CURLOPT_FOLLOWLOCATION, 1L);
  exchange.set(CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
  exchange.set(CURLOPT_NOPROGRESS, 1L);
  exchange.set(CURLOPT_MAXREDIRS, 50L);
  exchange.set(CURLOPT_TCP_KEEPALIVE, 1L);
  exchange.set(CURLOPT_TIMEOUT, HTTP_TIMEOUT_SECONDS);
  exchange.collectBody(response);
  if (const char* error = exchange.perform()) {
    LOG_ERROR("curl_easy_perform() failed: %s", error);
    throw SsoException("Couldn't retrieve discovery data from " + url + " Curl failed. Error: " + error);
  }
  const long status = exchange.status();
  LOG_DEBUG("Discovery request, Curl response code: %d", static_cast<int>(status));
  if (!isSuccess(status)) {
    LOG_ERROR("Discovery request, Curl response code: %d", static_cast<int>(status));
    throw SsoException("Couldn't retrieve discovery data from " + url + ". Curl returned: " + std::to_string(status));
  }
}

/// The reply's payload, still base64.
std::string Discovery::extractDataTag() {
  try {
    const json::jobject reply = json::jobject::parse(response);
    if (reply["data"].is_string()) {
      LOG_DEBUG("Discovery Request, found data tag.");
      return reply["data"].as_string();
    }
    LOG_ERROR("Discovery Request, missing data tag");
    throw SsoException("JSON returned by Discovery Request is missing data tag.");
  } catch (const std::exception& reason) {
    throw unusableJson(reason);
  }
}

void Discovery::decryptData(const std::string& data) {
  if (data.empty()) {
    LOG_ERROR("Nothing to decrypt");
    throw SsoException("Nothing to decrypt");
  }
  const std::string bytes = base64Decode(data);
  LOG_DEBUG("base64 decoded size: %d", static_cast<int>(bytes.size()));
  discoveryData.clear();
  const SecretText privateKeyPem(keyCertificateProvider->getPrivateKey(false));
  if (privateKeyPem.get().empty()) {
    LOG_ERROR("Decrypting Discovery Request Failed - No private key provided");
    throw KCException("Decrypting Discovery Request Failed - No private key provided");
  }
  LOG_DEBUG("Decrypting Discovery Request: %d size", static_cast<int>(bytes.size()));
  const auto graceEnd = std::chrono::steady_clock::now() + STOP_GRACE;
  for (std::size_t offset = 0; offset < bytes.size(); offset += DISCOVERY_RSA_BLOCK_SIZE) {
    if (std::chrono::steady_clock::now() >= graceEnd && isStopPending()) {
      throw SsoException("Decrypting Discovery Request was ended by a stop");
    }
    LOG_VERBOSE("string offset : %d", static_cast<int>(offset));
    const std::size_t length = std::min(DISCOVERY_RSA_BLOCK_SIZE, bytes.size() - offset);
    const auto* block = reinterpret_cast<const unsigned char*>(bytes.data() + offset);
    if (!AsymmetricPrivateKeyDecryption(privateKeyPem.get(), block, static_cast<int>(length), &discoveryData)) {
      discoveryData.clear();
      LOG_ERROR("AsymmetricPrivateKeyDecryption() FAILED");
      throw SsoException("Failed to decrypt Discovery Request.");
    }
  }
  LOG_DEBUG("Discovery Request successfully decoded");
}

/// Appends the block's plaintext up to its first NUL to the output. False for a block that decrypts to nothing.
bool Discovery::AsymmetricPrivateKeyDecryption(const std::string& privateKeyPem, const unsigned char* block, int length,
                                               std::string* output) {
  const ErrorQueueCleaner cleaner;
  const KeyOwner key = readPrivateKey(privateKeyPem);
  if (!key) {
    LOG_ERROR("PEM_read_bio_PrivateKey() FAILED");
    throw KCException("Decrypting Discovery data: PEM_read_bio_PrivateKey() FAILED");
  }
  if (EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA) {
    // Kept: the exception names the step before.
    LOG_ERROR("EVP_PKEY_get1_RSA() FAILED");
    throw KCException("Decrypting Discovery data: PEM_read_bio_PrivateKey() FAILED");
  }
  std::string plain;
  if (!decryptOaep(key.get(), block, static_cast<std::size_t>(length), plain)) {
    LOG_ERROR("RSA_private_decrypt() FAILED");
    throw KCException("Decrypting Discovery data: RSA_private_decrypt() FAILED");
  }
  const int size = EVP_PKEY_size(key.get());
  if (plain.size() > static_cast<std::size_t>(size)) {
    LOG_ERROR("RSA_private_decrypt() produced %d characters, expected at most %d", static_cast<int>(plain.size()),
              size);
    throw KCException("Decrypting Discovery data: RSA_private_decrypt() FAILED");
  }
  output->append(plain.c_str());
  return !plain.empty();
}

void Discovery::findWellKnownUrl() {
  const json::jobject document = json::jobject::parse(discoveryData);
  if (!hasObject(document, "config")) {
    return;
  }
  const json::jobject config = document["config"].as_object();
  if (!hasObject(config, "endpoints")) {
    return;
  }
  const json::jobject endpoints = config["endpoints"].as_object();
  if (hasString(endpoints, "veloIdConfiguration")) {
    ssoWellKnownUrl = endpoints["veloIdConfiguration"].as_string();
    LOG_DEBUG("SSO well known endpoint found: %s", ssoWellKnownUrl.c_str());
  }
}

}  // namespace velo::ssoService
