// The input is a sequence of requests to the provider that asks the local key service, and for each exchange the key
// service's side of the connection. Texts, failures and what is asked for are compared with the rules of the exchange.

#include <openssl/err.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Failure.h"
#include "Input.h"
#include "LiteralDocument.h"
#include "LiteralFrame.h"
#include "Require.h"
#include "kcProviders/OrvexKCProvider.h"
#include "seams/CapturedLog.h"
#include "seams/ScriptedConnection.h"
#include "util/Frames.h"
#include "util/OpenSsl.h"

namespace {

using fuzz::ConnectionScript;
using fuzz::Failure;
using fuzz::Input;
using fuzz::LENGTH_BYTES;
using fuzz::outcomeOf;
using fuzz::require;
using fuzz::requireEqual;
using velo::ssoService::MAX_FRAME_BYTES;
using velo::ssoService::OrvexKCProvider;

constexpr int PORT = 5001;
constexpr int MOST_REQUESTS = 8;

void expectRequest(const ConnectionScript& service, const std::string& word) {
  if (!service.hasSocket) {
    throw Failure{"Orvex Key Certificate socket creation failed"};
  }
  if (!service.connects || service.connectError != 0) {
    throw Failure{"Orvex Key Certificate socket couldn't be open"};
  }
  if (service.room < word.size()) {
    throw Failure{service.sendEnd == 0 ? "Orvex Key Certificate Connection closed while sending the request"
                                       : "Orvex Key Certificate sending the request failed"};
  }
}

/// How many of the bytes that the service sends are read before a stop ends the waiting.
std::size_t bytesThrough(const ConnectionScript& service) {
  return service.goesOnAfterStop ? service.incoming.size() : std::min(service.incoming.size(), service.stopAfter);
}

/// Whether what ends the bytes is an error rather than the service's closing.
bool endsInError(const ConnectionScript& service) {
  return service.readEnd != 0 || (!service.goesOnAfterStop && service.stopAfter <= service.incoming.size());
}

/// The text that one exchange gives. Throws Failure.
std::string expectedExchange(const ConnectionScript& service, const std::string& word) {
  expectRequest(service, word);
  const std::size_t through = bytesThrough(service);
  if (through < LENGTH_BYTES) {
    return "";
  }
  const std::size_t length = fuzz::announcedLength(service.incoming);
  const std::size_t read = through - LENGTH_BYTES;
  if (length > MAX_FRAME_BYTES || (read < length && endsInError(service))) {
    // Of a frame that is too large only what comes with its length is read.
    const std::size_t count = length > MAX_FRAME_BYTES ? fuzz::connectionRecord().read - LENGTH_BYTES : read;
    throw Failure{"Orvex read reply failed: read " + std::to_string(count) + " bytes"};
  }
  if (read < length) {
    throw Failure{"Orvex connection closed before all data read"};
  }
  const std::string text = service.incoming.substr(LENGTH_BYTES, length).c_str();
  if (text.compare(0, 5, "Error") == 0) {
    throw Failure{"Couldn't load key/certificate. Received: " + text.substr(0, text.find("-----BEGIN"))};
  }
  return text;
}

/// The provider's caches as the rules have them.
struct Caches {
  std::string key;
  std::string certificate;
};

/// A getter's outcome. Sets whether the service is asked.
std::string expectedFetch(const ConnectionScript& service, const char* word, bool reload, std::string& cache,
                          bool& asks) {
  asks = reload || cache.empty();
  if (asks) {
    cache.clear();
    try {
      cache = expectedExchange(service, word);
    } catch (const Failure& failure) {
      return "threw " + failure.text;
    }
  }
  return cache;
}

ConnectionScript takeService(Input& input) {
  ConnectionScript service = fuzz::takeConnection(input);
  const bool isFramed = !input.flag();
  service.incoming = isFramed ? fuzz::frameOf(input.piece()) : input.piece();
  return service;
}

void checkExchange(bool asks, const ConnectionScript& service, const std::string& word) {
  const fuzz::ConnectionRecord& record = fuzz::connectionRecord();
  require(!fuzz::isConnectionOpen(), "the connection is closed");
  const bool connects = asks && service.hasSocket;
  require(record.port == (connects ? PORT : -1), "the service is asked when the cache is empty, or on reload");
  requireEqual(record.outgoing,
               connects && service.connects && service.connectError == 0
                   ? word.substr(0, std::min(word.size(), service.room))
                   : "",
               "the request is the word");
}

void fetch(OrvexKCProvider& provider, Caches& caches, Input& input) {
  const bool isKey = input.flag();
  const bool reload = input.flag();
  const ConnectionScript service = takeService(input);
  fuzz::scriptConnection(service);
  const std::string outcome =
      outcomeOf([&] { return isKey ? provider.getPrivateKey(reload) : provider.getCertificate(reload); });
  const char* const word = isKey ? "privatekey" : "certificate";
  bool asks = false;
  requireEqual(outcome, expectedFetch(service, word, reload, isKey ? caches.key : caches.certificate, asks),
               "a key or certificate is what the exchange gives");
  checkExchange(asks, service, word);
}

/// The certificate's subject behind its first "=", by the library's own call.
std::string expectedId(const std::string& certificate) {
  const velo::ssoService::X509Owner parsed = velo::ssoService::readCertificate(certificate);
  ERR_clear_error();
  std::string subject;
  if (parsed) {
    char* const line = X509_NAME_oneline(X509_get_subject_name(parsed.get()), nullptr, 0);
    subject = line;
    OPENSSL_free(line);
  }
  const std::size_t mark = subject.find('=');
  return mark == std::string::npos ? "threw Cannot retrieve certificate id. Not found" : subject.substr(mark + 1);
}

/// What is made of the cached certificate. Without one the service would be asked.
void derive(OrvexKCProvider& provider, const Caches& caches) {
  fuzz::scriptConnection({});
  if (caches.certificate.empty()) {
    return;
  }
  static_cast<void>(outcomeOf([&] { return provider.getPublicKey(false); }));
  OrvexKCProvider fresh(PORT);
  ConnectionScript service;
  service.incoming = fuzz::frameOf(caches.certificate);
  fuzz::scriptConnection(service);
  requireEqual(outcomeOf([&] { return fresh.getCertificateId(false); }), expectedId(caches.certificate),
               "the certificate id is the subject behind its first mark");
  require(ERR_peek_error() == 0, "no error stays in OpenSSL's queue");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  OrvexKCProvider provider(PORT);
  Caches caches;
  for (int count = 0; count < MOST_REQUESTS && !input.isEmpty(); ++count) {
    fetch(provider, caches, input);
    derive(provider, caches);
    fuzz::takeLog();
  }
  return 0;
}
