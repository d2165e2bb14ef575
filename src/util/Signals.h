#pragma once

#include <atomic>
#include <chrono>

namespace velo::ssoService {

/// 0 until a stop signal has been handled, then 1 for good.
extern std::atomic<int> stopRequested;

/// 1 after a reload signal has been handled; who reloads sets it back.
extern std::atomic<int> reloadRequested;

/// The handler of SIGTERM and SIGINT: sets stopRequested, then logs. It locks the log, so it must not interrupt a
/// thread: the signals are blocked everywhere and handed to it as an ordinary call (see below).
void onStopSignal(int signo);

/// The handler of SIGHUP, in the same way: logs and sets reloadRequested.
void onReloadSignal(int signo);

/// Installs both handlers and blocks their signals in the calling thread and in all that it starts later; ignores the
/// signals by which a lost client or a file size limit would end the process. To be called once, before any thread
/// exists.
void takeSignals();

/// Hands the signals that are pending to their handlers. For the main thread.
void deliverSignals();

/// Waits, at most so long, until a signal comes, and delivers it. Returns at once when one is pending. For the main
/// thread.
void waitForSignal(std::chrono::milliseconds limit);

/// Whether a stop signal is pending or has been handled. For any thread.
bool isStopPending();

/// A descriptor that polls as readable while a stop signal is pending; -1, which poll skips, without takeSignals.
int stopSignalDescriptor();

}  // namespace velo::ssoService
