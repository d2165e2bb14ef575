#include "apiProviders/framing/Echo.h"

#include <mutex>

#include "apiProviders/SsoApiSocketProvider.h"

namespace test {
namespace {

std::mutex lock;
Echo::Answer currentAnswer;
std::vector<std::string> received;

Echo::Answer take(const std::string& request) {
  const std::lock_guard<std::mutex> guard(lock);
  received.push_back(request);
  return currentAnswer;
}

}  // namespace

Echo::Echo() {
  answer([](const std::string& request) { return request; });
}

Echo::~Echo() {
  const std::lock_guard<std::mutex> guard(lock);
  received.clear();
}

void Echo::answer(Answer function) {
  const std::lock_guard<std::mutex> guard(lock);
  currentAnswer = std::move(function);
}

std::vector<std::string> Echo::requests() const {
  const std::lock_guard<std::mutex> guard(lock);
  return received;
}

}  // namespace test

void velo::ssoService::SsoApiSocketProvider::handleRequest(const std::string& request) {
  sendReply(test::take(request)(request));
}
