#pragma once

#include <atomic>
#include <future>
#include <memory>
#include <string>

#include "support/Await.h"
#include "support/EncryptedDiscovery.h"
#include "support/HttpServer.h"
#include "support/TemporaryDirectory.h"
#include "support/TestIdentity.h"

namespace test {

/// A device, /CN=device-0001, with its files and its cloud, which has everything that a manager needs to get ready.
class Device {
 public:
  Device() : payload(discoveryPayload(cloud.url("/openid"))) {
    directory.write("device.key", deviceIdentity().privateKey);
    installCertificate();
    configure(R"({"url":")" + discoveryUrl() + R"(","cache_enabled":false})");
    cloud.on(DISCOVERY, goodDiscovery());
    cloud.on("/openid", {200, R"({"token_endpoint":")" + cloud.url("/token") + R"("})", {}});
    cloud.on("/token", {200, R"({"access_token":"a token","expires_in":3600})", {}});
  }

  /// Writes the configuration file with this cloud section and, for no file provider, this certificate provider. There
  /// is no local API; without the end of the sso section it is missing.
  void configure(const std::string& cloudSection, const std::string& provider = "",
                 const std::string& rest = R"(,"api_providers":[])") {
    const std::string files = R"({"type":"file","key_path":")" + directory.file("device.key") +
                              R"(","certificate_path":")" + certificatePath() + R"("})";
    directory.write("configuration.json", R"({"sso":{"cloud_config":)" + cloudSection + R"(,"certificate_provider":)" +
                                              (provider.empty() ? files : provider) + rest + "}}");
  }

  std::string configuration() const { return directory.file("configuration.json"); }
  std::string certificatePath() const { return directory.file("device.crt"); }
  std::string discoveryUrl() const { return cloud.url("/discovery/"); }

  void installCertificate() { directory.write("device.crt", deviceIdentity().certificate); }

  HttpReply goodDiscovery() const { return {200, discoveryReply(payload, deviceIdentity().certificate), {}}; }

  static constexpr const char* DISCOVERY = "/discovery/device-0001";  ///< what the manager asks for

  TemporaryDirectory directory;
  HttpServer cloud;
  const std::string payload;
};

/// A reply that is held back until the test lets it go, at the latest when this is destroyed.
class HeldReply {
 public:
  HeldReply(HttpServer& server, const std::string& path, const HttpReply& reply) {
    server.on(path, [shared = state, reply](const HttpRequest&) {
      if (!shared->isAsked.exchange(true)) {
        shared->asked.set_value();
      }
      shared->gone.wait();
      return reply;
    });
  }
  ~HeldReply() { letGo(); }
  HeldReply(const HeldReply&) = delete;
  HeldReply& operator=(const HeldReply&) = delete;

  /// Whether somebody asks for it in time. To be called once.
  bool awaitRequest() { return state->asked.get_future().wait_for(PATIENCE) == std::future_status::ready; }

  void letGo() {
    if (!isGone) {
      isGone = true;
      state->let.set_value();
    }
  }

 private:
  struct State {
    std::atomic<bool> isAsked{false};
    std::promise<void> asked;
    std::promise<void> let;
    std::shared_future<void> gone = let.get_future().share();
  };
  std::shared_ptr<State> state = std::make_shared<State>();
  bool isGone = false;
};

}  // namespace test
