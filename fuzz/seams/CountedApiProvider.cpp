#include "seams/CountedApiProvider.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>

#include "apiProviders/SsoApiSocketProvider.h"

namespace {

std::mutex lock;
std::condition_variable isServing;
std::vector<std::string> made;
std::size_t serving = 0;

}  // namespace

namespace fuzz {

std::vector<std::string> takeApiProviders() {
  std::unique_lock<std::mutex> guard(lock);
  isServing.wait(guard, [] { return serving == made.size(); });
  serving = 0;
  return std::exchange(made, {});
}

}  // namespace fuzz

namespace velo::ssoService {

SsoApiSocketProvider::SsoApiSocketProvider(DiscoverySSOManager* requestManager, int listeningPort,
                                           std::chrono::milliseconds timeOfClient)
    : manager(requestManager), port(listeningPort), clientTimeout(timeOfClient) {
  const std::lock_guard<std::mutex> guard(lock);
  made.push_back(std::to_string(port) + " " + std::to_string(clientTimeout.count()));
}

void SsoApiSocketProvider::serve() {
  const std::lock_guard<std::mutex> guard(lock);
  ++serving;
  isServing.notify_one();
}

}  // namespace velo::ssoService
