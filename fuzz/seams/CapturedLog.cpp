#include "seams/CapturedLog.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

#include "logging/logging.h"

namespace {

std::mutex lock;
std::vector<std::string> lines;
bool redacts = false;

void keep(std::string line) {
  const std::lock_guard<std::mutex> guard(lock);
  lines.push_back(std::move(line));
}

}  // namespace

namespace fuzz {

std::vector<std::string> takeLog() {
  const std::lock_guard<std::mutex> guard(lock);
  return std::exchange(lines, {});
}

}  // namespace fuzz

void log_message(const char* /*file*/, int /*line*/, int level, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)) + 1, '\0');
  static_cast<void>(std::vsnprintf(text.data(), text.size(), format, again));
  va_end(again);
  va_end(arguments);
  keep(std::to_string(level) + " " + text.c_str());
}

int log_init(const char* prefix, int level, int timestamps) {
  keep("start " + std::string(prefix != nullptr ? prefix : "(none)") + " " + std::to_string(level) +
       (timestamps == 1 ? "" : " without time"));
  return 0;
}

/// No line waits here.
void log_hurry_when(bool (* /*isEnding*/)()) {
}

int log_level_from_name(const char* name) {
  static constexpr std::array<const char*, 5> NAMES = {"error", "warning", "info", "debug", "verbose"};
  int level = 0;
  for (const char* const candidate : NAMES) {
    ++level;
    if (std::strcmp(name, candidate) == 0) {
      return level;
    }
  }
  return 0;
}

void log_redact_secrets(bool redact) {
  redacts = redact;
}

const char* log_secret(const std::string& text) {
  return redacts ? "[redacted]" : text.c_str();
}
