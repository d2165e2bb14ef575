// The input is a connection of a local client, what the manager answers, and a request. The one reply frame is compared
// with what the protocol says about the request, read character by character.

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "DiscoverySSOManager.h"
#include "Input.h"
#include "KCException.h"
#include "LiteralDocument.h"
#include "LiteralFrame.h"
#include "LiteralJson.h"
#include "Require.h"
#include "SsoException.h"
#include "apiProviders/SsoApiSocketProvider.h"
#include "apiProviders/requests/ScriptedManager.h"
#include "seams/CapturedLog.h"
#include "seams/ScriptedConnection.h"

namespace {

using fuzz::DocumentModel;
using fuzz::Input;
using fuzz::LENGTH_BYTES;
using fuzz::require;
using fuzz::requireEqual;
using json::jtype;
using velo::ssoService::MAX_FRAME_BYTES;

velo::ssoService::SsoApiSocketProvider* serving = nullptr;
fuzz::ConnectionScript client;
std::chrono::milliseconds clientTime{0};

/// What the manager's operations give, or throw.
struct ManagerAnswer {
  enum Kind { TEXT, SSO_EXCEPTION, KC_EXCEPTION, PLAIN_EXCEPTION } kind;
  std::string text;

  std::string give() const {
    switch (kind) {
      case TEXT:
        break;
      case SSO_EXCEPTION:
        throw velo::ssoService::SsoException(text);
      case KC_EXCEPTION:
        throw velo::ssoService::KCException(text);
      case PLAIN_EXCEPTION:
        throw std::exception();
    }
    return text;
  }
};

/// The reply as it is written, and the call of the manager that it takes.
struct Expected {
  std::string reply;
  std::vector<std::string> calls;
};

std::string errorReply(const std::string& message) {
  return R"({"status":"error","message":)" + fuzz::literalEscape(message) + "}";
}

/// A reply that takes a call of the manager.
Expected callReply(const std::string& call, const std::function<std::string()>& members) {
  try {
    return {R"({"status":"ok")" + members() + "}", {call}};
  } catch (const std::exception& reason) {
    return {errorReply(reason.what()), {call}};
  }
}

Expected expectedReply(const DocumentModel& request, const ManagerAnswer& manager) {
  if (!fuzz::hasMember(request, "request", jtype::jstring)) {
    return {errorReply("request not specified"), {}};
  }
  const std::string name = fuzz::memberText(request, "request");
  if (name == "token") {
    if (!fuzz::hasMember(request, "scope", jtype::jstring)) {
      return {errorReply("unspecified token scope"), {}};
    }
    return callReply("getToken(" + fuzz::memberText(request, "scope") + ")",
                     [&] { return R"(,"token":)" + fuzz::literalEscape(manager.give()); });
  }
  if (name == "data") {
    return callReply("getDiscoveryData()", [&] {
      return R"(,"discovery_data":)" + fuzz::writeLiterally(test::modelParse(manager.give().c_str()));
    });
  }
  if (name == "certificate_id") {
    return callReply("getCertificateId()",
                     [&] { return R"(,"certificate_id":)" + fuzz::literalEscape(manager.give()); });
  }
  if (name == "reset") {
    return callReply("reset()", [&] { return manager.give(), ""; });
  }
  return {errorReply("unsupported request: " + name), {}};
}

/// The request that the bytes carry; empty when they do not carry it whole.
std::string requestIn(const std::string& incoming) {
  if (incoming.size() < LENGTH_BYTES) {
    return "";
  }
  const std::size_t length = fuzz::announcedLength(incoming);
  return length <= MAX_FRAME_BYTES && length <= incoming.size() - LENGTH_BYTES
             ? incoming.substr(LENGTH_BYTES, length).c_str()
             : "";
}

Expected expectedReply(const std::string& incoming, const ManagerAnswer& manager) {
  try {
    return expectedReply(test::modelParse(requestIn(incoming).c_str()), manager);
  } catch (const std::exception& reason) {
    return {errorReply(reason.what()), {}};
  }
}

ManagerAnswer takeManagerAnswer(Input& input) {
  const auto kind = static_cast<ManagerAnswer::Kind>(input.below(4));
  return {kind, input.piece()};
}

void scriptManager(const ManagerAnswer& answer) {
  test::ManagerScript script;
  script.getToken = [answer](const std::string&) { return answer.give(); };
  script.getDiscoveryData = [answer] { return answer.give(); };
  script.getCertificateId = [answer] { return answer.give(); };
  script.reset = [answer] { return !answer.give().empty(); };
  test::scriptManager(script);
}

/// A client that behaves, or one made from the input, and how much time it has.
fuzz::ConnectionScript takeClient(Input& input) {
  fuzz::ConnectionScript made = fuzz::takeConnection(input);
  made.connects = true;
  made.stopAfter = fuzz::ConnectionScript().stopAfter;
  const std::size_t choice = input.below(4);
  const bool isFramed = choice % 2 == 0;
  clientTime = std::chrono::hours(choice / 2);
  if (clientTime.count() > 0 && made.sendEnd == EAGAIN) {
    made.sendEnd = EPIPE;  // there would be a wait for the hour to pass
  }
  made.incoming = isFramed ? fuzz::frameOf(input.rest()) : input.rest();
  return made;
}

/// Serves the one client, whose connection then has to be closed.
void serve() {
  static velo::ssoService::DiscoverySSOManager manager("", "");
  velo::ssoService::SsoApiSocketProvider provider(&manager, 0, clientTime);
  serving = &provider;
  provider.acceptLoop();
  require(!fuzz::isConnectionOpen(), "a client's connection is closed");
}

void checkReply(const Expected& expected) {
  const std::string& sent = fuzz::connectionRecord().outgoing;
  requireEqual(sent, fuzz::frameOf(expected.reply).substr(0, client.room), "one reply frame is sent");
  fuzz::LiteralJson literal;
  require(fuzz::readLiterally(expected.reply, literal) != fuzz::Verdict::INVALID, "a reply is valid JSON");
  require(test::managerCalls() == expected.calls, "the manager is called for what is asked");
}

}  // namespace

extern "C" int __wrap_accept4(int, void*, void*, int);
extern "C" int __wrap_accept4(int /*socket*/, void* /*address*/, void* /*length*/, int /*flags*/) {
  serving->stop();
  return fuzz::openConnection(client);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const ManagerAnswer manager = takeManagerAnswer(input);
  client = takeClient(input);
  scriptManager(manager);
  serve();
  fuzz::takeLog();
  checkReply(expectedReply(client.incoming, manager));
  return 0;
}
