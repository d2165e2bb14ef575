// What local programs can ask, and what they get.

#include <exception>

#include "DiscoverySSOManager.h"
#include "apiProviders/SsoApiSocketProvider.h"
#include "json/json.h"
#include "logging/logging.h"
#include "util/JsonMembers.h"

namespace velo::ssoService {
namespace {

constexpr const char* LOG_SOURCE = "apiProviders/SsoApiSocketProvider";

json::jobject makeReply(const char* status) {
  json::jobject reply;
  reply["status"] = status;
  return reply;
}

}  // namespace

/// Every path ends in one reply.
void SsoApiSocketProvider::handleRequest(const std::string& request) {
  LOG_INFO("Processing request %s", request.c_str());
  try {
    const json::jobject document = json::jobject::parse(request);
    if (!hasString(document, "request")) {
      sendErrorReply("request not specified");
      return;
    }
    const std::string name = document["request"].as_string();
    if (name == "token") {
      if (hasString(document, "scope")) {
        sendTokenReply(document["scope"].as_string());
      } else {
        sendErrorReply("unspecified token scope");
      }
    } else if (name == "data") {
      sendDiscoveryDataReply();
    } else if (name == "certificate_id") {
      sendCertificateIdReply();
    } else if (name == "reset") {
      sendResetReply();
    } else {
      sendErrorReply("unsupported request: " + name);
    }
  } catch (const std::exception& reason) {
    LOG_ERROR("Invalid request format: %s", reason.what());
    sendErrorReply(reason.what());
  }
}

void SsoApiSocketProvider::sendTokenReply(const std::string& scope) {
  try {
    json::jobject reply = makeReply("ok");
    reply["token"] = manager->getToken(scope);
    const std::string text = reply.as_string();
    LOG_INFO("Sending json token reply %s", log_secret(text));  // Kept: with the token.
    sendReply(text);
  } catch (const std::exception& reason) {
    LOG_ERROR("SSO API Getting access token failed %s", reason.what());
    sendErrorReply(reason.what());
  }
}

void SsoApiSocketProvider::sendDiscoveryDataReply() {
  try {
    const json::jobject data = json::jobject::parse(manager->getDiscoveryData());
    json::jobject reply = makeReply("ok");
    reply["discovery_data"] = data;
    sendReply(reply.as_string());
  } catch (const std::exception& reason) {
    LOG_ERROR("SSO API Getting discovery data failed");
    sendErrorReply(reason.what());
  }
}

void SsoApiSocketProvider::sendCertificateIdReply() {
  try {
    json::jobject reply = makeReply("ok");
    reply["certificate_id"] = manager->getCertificateId();
    const std::string text = reply.as_string();
    LOG_DEBUG("SSO API Sending json certificate id reply %s", text.c_str());
    sendReply(text);
  } catch (const std::exception& reason) {
    LOG_ERROR("SSO API Getting certificate id failed");
    sendErrorReply(reason.what());
  }
}

void SsoApiSocketProvider::sendResetReply() {
  try {
    manager->reset();
    const std::string text = makeReply("ok").as_string();
    LOG_DEBUG("SSO API Sending reset confirmation %s", text.c_str());
    sendReply(text);
  } catch (const std::exception& reason) {
    LOG_ERROR("SSO Reset failed %s", reason.what());
    sendErrorReply(reason.what());
  }
}

void SsoApiSocketProvider::sendErrorReply(const std::string& message) {
  json::jobject reply = makeReply("error");
  reply["message"] = message;
  sendReply(reply.as_string());
}

}  // namespace velo::ssoService
