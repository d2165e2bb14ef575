#pragma once

#include <atomic>
#include <chrono>

namespace velo::ssoService {

/// 0 until a stop signal has been handled, then 1 for good.
extern std::atomic<int> stopRequested;

/// The handler of SIGTERM and SIGINT: logs and sets stopRequested. It locks the log, so it must not interrupt a thread:
/// the signals are blocked everywhere and handed to it as an ordinary call (see below).
void onStopSignal(int signo);

/// Installs onStopSignal and blocks the stop signals in the calling thread and in all that it starts later; ignores the
/// signals by which a lost client or a file size limit would end the process. To be called once, before any thread
/// exists.
void takeStopSignals();

/// Hands the stop signals that are pending to onStopSignal. For the main thread.
void deliverStopSignals();

/// Waits, at most so long, until a stop signal comes, and delivers it. Returns at once when one is pending. For the
/// main thread.
void waitForStopSignal(std::chrono::seconds limit);

/// Whether a stop signal is pending or has been handled. For any thread.
bool isStopPending();

/// A descriptor that polls as readable while a stop signal is pending; -1, which poll skips, without takeStopSignals.
int stopSignalDescriptor();

}  // namespace velo::ssoService
