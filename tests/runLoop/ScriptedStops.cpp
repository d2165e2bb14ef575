#include "runLoop/ScriptedStops.h"

#include <stdexcept>

#include "util/Signals.h"

namespace test {
namespace {

StopScript* current = nullptr;

/// A loop that goes on for ever would otherwise only show as a test that does not end.
void refuseEndlessLoop(std::size_t rounds) {
  if (rounds > 100) {
    throw std::logic_error("the run loop does not end");
  }
}

}  // namespace

StopScript::StopScript() {
  current = this;
  velo::ssoService::stopRequested = 0;
  velo::ssoService::reloadRequested = 0;
}

StopScript::~StopScript() {
  current = nullptr;
}

void requestStop() {
  velo::ssoService::stopRequested = 1;
}

void requestReload() {
  velo::ssoService::reloadRequested = 1;
}

}  // namespace test

namespace velo::ssoService {

std::atomic<int> stopRequested{0};
std::atomic<int> reloadRequested{0};

void deliverSignals() {
  if (test::current == nullptr) {
    return;
  }
  const std::size_t before = test::current->deliveries++;
  test::refuseEndlessLoop(before);
  if (test::current->onDelivery) {
    test::current->onDelivery(before);
  }
}

void waitForSignal(std::chrono::milliseconds limit) {
  const std::size_t before = test::current->waits.size();
  test::current->waits.push_back(limit);
  test::refuseEndlessLoop(before);
  if (test::current->onWait) {
    test::current->onWait(before);
  }
}

bool isStopPending() {
  return stopRequested != 0;
}

int stopSignalDescriptor() {
  return -1;
}

void onStopSignal(int /*signo*/) {
  test::requestStop();
}

void onReloadSignal(int /*signo*/) {
  test::requestReload();
}

void takeSignals() {
}

}  // namespace velo::ssoService
