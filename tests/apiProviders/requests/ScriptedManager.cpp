#include "apiProviders/requests/ScriptedManager.h"

#include <mutex>

#include "DiscoverySSOManager.h"

namespace test {
namespace {

std::mutex scriptLock;
ManagerScript currentScript;
std::vector<std::string> calls;

ManagerScript record(const std::string& call) {
  const std::lock_guard<std::mutex> guard(scriptLock);
  calls.push_back(call);
  return currentScript;
}

}  // namespace

void scriptManager(ManagerScript script) {
  const std::lock_guard<std::mutex> guard(scriptLock);
  currentScript = std::move(script);
  calls.clear();
}

std::vector<std::string> managerCalls() {
  const std::lock_guard<std::mutex> guard(scriptLock);
  return calls;
}

}  // namespace test

namespace velo::ssoService {

DiscoverySSOManager::DiscoverySSOManager(const std::string& /*configPath*/, const std::string& /*cloudEnvironment*/) {
}

DiscoverySSOManager::~DiscoverySSOManager() = default;

std::string DiscoverySSOManager::getToken(const std::string& scope) {
  return test::record("getToken(" + scope + ")").getToken(scope);
}

std::string DiscoverySSOManager::getDiscoveryData() {
  return test::record("getDiscoveryData()").getDiscoveryData();
}

std::string DiscoverySSOManager::getCertificateId() {
  return test::record("getCertificateId()").getCertificateId();
}

bool DiscoverySSOManager::reset() {
  return test::record("reset()").reset();
}

}  // namespace velo::ssoService
