// The input is what the cloud and the backup file answer to a discovery request, with blocks that are encrypted to the
// device, so that the inputs get behind the decryption. Results, failures and the backup file are compared with the
// rules of discovery; which blocks decrypt, and to what, is known from their making.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Base64.h"
#include "DeviceIdentity.h"
#include "Discovery.h"
#include "Failure.h"
#include "Input.h"
#include "LiteralDocument.h"
#include "Require.h"
#include "seams/CapturedLog.h"
#include "seams/MemoryFiles.h"
#include "seams/ScriptedHttp.h"
#include "support/EncryptedDiscovery.h"
#include "support/ScriptedProvider.h"

namespace {

using fuzz::DocumentModel;
using fuzz::Failure;
using fuzz::HttpAnswer;
using fuzz::Input;
using fuzz::outcomeOf;
using fuzz::require;
using fuzz::requireEqual;
using json::jtype;
using velo::ssoService::Discovery;

constexpr std::size_t BLOCK_BYTES = 256;
constexpr std::size_t MOST_PLAIN_BYTES = 214;
constexpr std::size_t MOST_BLOCKS = 4;
constexpr const char* URL = "https://cloud.example/device/";
constexpr const char* BACKUP_FILE = "/var/cache/sso/device-0001.cfg";
constexpr const char* UNUSABLE = "Error processing JSON returned by Discovery Request.";

/// What a block is known to decrypt to, by the block's bytes.
std::map<std::string, std::string> plaintexts;

// The making of a reply.

/// The plaintext as a block for the device. Encryption takes its time, and plaintexts come again.
std::string encrypt(const std::string& plain) {
  static std::map<std::string, std::string> made;
  if (made.size() > 4096) {
    made.clear();
  }
  std::string& block = made[plain];
  if (block.empty()) {
    block = test::encryptBlocks({plain}, fuzz::deviceIdentity().certificate);
  }
  return block;
}

std::string takeBlock(Input& input) {
  const std::size_t kind = input.below(4);
  const std::string plain = input.piece().substr(0, MOST_PLAIN_BYTES);
  if (kind == 3) {
    return plain + std::string(BLOCK_BYTES - plain.size(), static_cast<char>(kind));
  }
  std::string block = encrypt(plain);
  if (kind == 2) {
    block[input.byte()] ^= 1;  // one bit, anywhere
    return block;
  }
  plaintexts[block] = plain;
  return block;
}

/// The "data" of a reply: blocks as base64, now and then with other characters among theirs.
std::string takeData(Input& input) {
  std::string blocks;
  for (std::size_t count = input.below(MOST_BLOCKS + 1); count > 0; --count) {
    blocks += takeBlock(input);
  }
  std::string data = test::base64Encode(blocks);
  if (input.flag()) {
    data.insert(std::min(data.size(), input.number()), input.piece());
  }
  return data;
}

std::string takeBody(Input& input) {
  if (input.flag()) {
    return input.piece();
  }
  const std::string before = input.piece();
  const std::string after = input.piece();
  return "{" + before + "\"data\":\"" + takeData(input) + "\"" + after + "}";
}

HttpAnswer takeAnswer(Input& input) {
  HttpAnswer answer = fuzz::takeHttpAnswer(input);
  answer.body = takeBody(input);
  return answer;
}

/// What the provider has for a private key: mostly the device's.
const std::string& takeKey(std::uint8_t choice) {
  static const std::string none;
  static const std::string garbage = "no key";
  switch (choice % 8) {
    case 1:
      return none;
    case 2:
      return garbage;
    case 3:
      return test::curveIdentity().privateKey;
    default:
      return fuzz::deviceIdentity().privateKey;
  }
}

// The rules.

/// Digits taken one by one, each put behind the bits that are left.
std::string decodeBase64Literally(const std::string& text) {
  static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bits;
  for (const char c : text) {
    const std::size_t value = alphabet.find(c);
    if (value == std::string::npos) {
      break;
    }
    for (unsigned bit = 6; bit > 0; --bit) {
      bits += (value >> (bit - 1) & 1U) != 0 ? '1' : '0';
    }
  }
  std::string bytes;
  for (std::size_t i = 0; i + 8 <= bits.size(); i += 8) {
    bytes += static_cast<char>(std::stoi(bits.substr(i, 8), nullptr, 2));
  }
  return bytes;
}

std::string expectedBody(const HttpAnswer& answer) {
  const std::string failure = std::string("Couldn't retrieve discovery data from ") + URL;
  if (!answer.hasHandle) {
    throw Failure{"Couldn't make discovery request. Curl initialization failed"};
  }
  const CURLcode code = fuzz::codeOf(answer);
  if (code != CURLE_OK) {
    throw Failure{failure + " Curl failed. Error: " + curl_easy_strerror(code)};
  }
  if (answer.status < 200 || answer.status > 299) {
    throw Failure{failure + ". Curl returned: " + std::to_string(answer.status)};
  }
  return answer.body;
}

std::string expectedData(const std::string& body) {
  try {
    const DocumentModel reply = test::modelParse(body.c_str());
    const std::string* const data = fuzz::findMember(reply, "data");
    if (data == nullptr) {
      throw Failure{std::string(UNUSABLE) + "data"};
    }
    if (fuzz::literalType(*data) != jtype::jstring) {
      throw Failure{std::string(UNUSABLE) + "JSON returned by Discovery Request is missing data tag."};
    }
    return fuzz::literalText(*data);
  } catch (const std::exception& reason) {
    throw Failure{UNUSABLE + std::string(reason.what())};
  }
}

std::string expectedPlaintext(const std::string& data, const std::string& key) {
  if (data.empty()) {
    throw Failure{"Nothing to decrypt"};
  }
  if (key.empty()) {
    throw Failure{"Decrypting Discovery Request Failed - No private key provided"};
  }
  const std::string bytes = decodeBase64Literally(data);
  std::string plain;
  for (std::size_t offset = 0; offset < bytes.size(); offset += BLOCK_BYTES) {
    if (key != fuzz::deviceIdentity().privateKey) {
      throw Failure{"Decrypting Discovery data: PEM_read_bio_PrivateKey() FAILED"};
    }
    const auto known = plaintexts.find(bytes.substr(offset, BLOCK_BYTES));
    if (known == plaintexts.end()) {
      throw Failure{"Decrypting Discovery data: RSA_private_decrypt() FAILED"};
    }
    if (known->second.empty()) {
      throw Failure{"Failed to decrypt Discovery Request."};
    }
    plain += known->second.c_str();
  }
  return plain;
}

/// The well-known URL in the configuration; empty when it is not there.
std::string expectedUrl(const std::string& plain) {
  try {
    const DocumentModel document = test::modelParse(plain.c_str());
    if (!fuzz::hasContainer(document, "config")) {
      return "";
    }
    const DocumentModel config = fuzz::memberDocument(document, "config");
    if (!fuzz::hasContainer(config, "endpoints")) {
      return "";
    }
    const DocumentModel endpoints = fuzz::memberDocument(config, "endpoints");
    const bool isThere = fuzz::hasMember(endpoints, "veloIdConfiguration", jtype::jstring);
    return isThere ? fuzz::memberText(endpoints, "veloIdConfiguration") : "";
  } catch (const std::exception& reason) {
    throw Failure{UNUSABLE + std::string(reason.what())};
  }
}

/// What one run is to lead to, with the provider's key.
struct Expected {
  std::string key;
  std::string failure;  ///< empty: none
  std::string url;
  std::string data;
  std::string backup;
  int writes = 0;
};

/// One attempt. Throws Failure.
void attempt(Expected& expected, const std::string& body, bool stores) {
  expected.data = expectedPlaintext(expectedData(body), expected.key);
  expected.url = expectedUrl(expected.data);
  if (stores) {
    expected.backup = body;
    ++expected.writes;
  }
  if (expected.url.empty()) {
    throw Failure{"config.endpoints.veloIdConfiguration not found"};
  }
}

void attemptBackup(Expected& expected) {
  try {
    if (expected.backup.empty()) {
      throw Failure{" is empty"};
    }
    attempt(expected, expected.backup, false);
  } catch (const Failure&) {
    expected.failure = "Couldn't retrieve cloud configure from the cloud and the backup file";
  }
}

Expected expectedResult(const HttpAnswer& answer, const std::string& backup, const std::string& key,
                        bool cacheEnabled) {
  Expected expected;
  expected.key = key;
  expected.backup = backup;
  try {
    attempt(expected, expectedBody(answer), cacheEnabled);
  } catch (const Failure& failure) {
    if (cacheEnabled) {
      attemptBackup(expected);
    } else {
      expected.failure =
          "Couldn't retrieve configuration from the cloud: " + failure.text + " Cloud config caching not enabled";
    }
  }
  return expected;
}

void checkRequest(const HttpAnswer& answer) {
  require(fuzz::httpRequests().size() == (answer.hasHandle ? 1 : 0), "one request is made");
  if (!answer.hasHandle) {
    return;
  }
  const fuzz::HttpRequest& request = fuzz::httpRequests().front();
  requireEqual(request.url, std::string(URL) + "device-0001", "the request goes to the URL with the device's id");
  const std::map<CURLoption, long> numbers = {
      {CURLOPT_HTTPGET, 1},    {CURLOPT_FOLLOWLOCATION, 1}, {CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V4},
      {CURLOPT_NOPROGRESS, 1}, {CURLOPT_MAXREDIRS, 50},     {CURLOPT_TCP_KEEPALIVE, 1},
      {CURLOPT_TIMEOUT, 30}};
  require(request.numbers == numbers && request.form.empty() && request.headers.empty(),
          "the request is the one wanted");
}

void checkResult(Discovery& discovery, const Expected& expected) {
  requireEqual(outcomeOf([&] { return discovery.retrieveConfiguration(), ""; }),
               expected.failure.empty() ? "" : "threw " + expected.failure, "discovery ends as the rules say");
  require(discovery.hasConfiguration() == expected.failure.empty(), "a configuration is there or not");
  requireEqual(fuzz::memoryFiles()[BACKUP_FILE], expected.backup, "the backup file is the last reply that parsed");
  require(fuzz::takeFileWrites() == expected.writes, "only a reply from the cloud is stored");
  if (expected.failure.empty()) {
    requireEqual(discovery.getSsoWellKnownUrl(), expected.url, "the URL is the one in the configuration");
    requireEqual(discovery.getDiscoveryData(), expected.data, "the configuration is the plaintext");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static test::ScriptedProvider provider(fuzz::deviceIdentity());
  Input input(data, size);
  plaintexts.clear();
  provider.calls.clear();
  const std::uint8_t choice = input.byte();
  const bool cacheEnabled = choice % 2 != 0;
  const std::string key = takeKey(choice / 2);
  provider.privateKeySource = [key] { return key; };
  const HttpAnswer answer = takeAnswer(input);
  const std::string backup = cacheEnabled ? takeBody(input) : "";
  requireEqual(velo::ssoService::base64Decode(backup), decodeBase64Literally(backup),
               "base64 is decoded digit by digit");
  fuzz::memoryFiles() = {{BACKUP_FILE, backup}};
  fuzz::answerHttp({answer});
  Discovery discovery(URL, cacheEnabled, "/var/cache/sso", &provider);
  checkResult(discovery, expectedResult(answer, backup, key, cacheEnabled));
  checkRequest(answer);
  fuzz::takeLog();
  return 0;
}
