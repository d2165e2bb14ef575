#include "logging/logging.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "logging/LineText.h"
#include "logging/StandardOutput.h"
#include "util/Descriptor.h"
#include "util/Mutex.h"

namespace {

constexpr int LINES_BETWEEN_SIZE_CHECKS = 100;
constexpr std::int64_t SECONDS_PER_HOUR = 3600;
constexpr long NANOSECONDS_PER_MILLISECOND = 1000000;
constexpr std::size_t USUAL_LINE_BYTES = 4096;

std::atomic<int> currentLevel{LOG_LEVEL_VERBOSE};
std::atomic<bool> redactsSecrets{false};

/// Everything but the level, which is read without the lock so that a dropped message costs no more than that.
struct LogState {
  Mutex lock;
  std::FILE* stream GUARDED_BY(lock) = nullptr;  ///< null: the next message selects standard output
  StandardOutput standardOutput GUARDED_BY(lock);
  std::string prefix GUARDED_BY(lock);
  std::string fileName GUARDED_BY(lock);  ///< empty: none
  bool timestamps GUARDED_BY(lock) = false;
  std::int64_t maxSize GUARDED_BY(lock) = 0;
  int rotationHours GUARDED_BY(lock) = 0;
  std::int64_t openedAt GUARDED_BY(lock) = 0;
  std::int64_t rotateAt GUARDED_BY(lock) = 0;
  int lineCount GUARDED_BY(lock) = 0;
  std::time_t zoneReadAt GUARDED_BY(lock) = 0;
};

/// Never destroyed: threads may log until the process is gone.
LogState& state() {
  static LogState& instance = *new LogState;
  return instance;
}

class ErrnoKeeper {
 public:
  ErrnoKeeper() : kept(errno) {}
  ~ErrnoKeeper() { errno = kept; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int kept;
};

/// The local time now. The device's time zone may be set while the service runs: it is read again each second.
std::tm localTime(LogState& log) REQUIRES(log.lock) {
  const std::time_t now = std::time(nullptr);
  if (now != log.zoneReadAt) {
    tzset();
    log.zoneReadAt = now;
  }
  std::tm broken{};
  localtime_r(&now, &broken);
  return broken;
}

/// The form of asctime without its line end.
std::string dateText(LogState& log) REQUIRES(log.lock) {
  const std::tm now = localTime(log);
  char text[64] = "";
  static_cast<void>(std::strftime(text, sizeof text, "%a %b %e %H:%M:%S %Y", &now));
  return text;
}

std::string timeStampedName(LogState& log) REQUIRES(log.lock) {
  const std::tm now = localTime(log);
  char stamp[64] = "";
  static_cast<void>(std::strftime(stamp, sizeof stamp, "-%Y-%m-%d-%H-%M-%S.log", &now));
  return log.prefix + stamp;
}

void setRotationStart(LogState& log) REQUIRES(log.lock) {
  log.rotateAt = log.openedAt + SECONDS_PER_HOUR * log.rotationHours;
}

/// Puts a text out, in a file's case into the stream's buffer.
void put(LogState& log, std::string_view text) REQUIRES(log.lock) {
  if (log.stream == stdout) {
    log.standardOutput.write(text);
  } else {
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), log.stream));
  }
}

int closeLocked(LogState& log) REQUIRES(log.lock) {
  int result = 0;
  if (log.stream != nullptr) {
    put(log, "LOG END " + dateText(log));
    if (log.stream != stdout) {
      result = std::fclose(log.stream);
      if (result != 0) {
        std::perror(" Couldn't close log file \n");
      }
    }
    log.stream = nullptr;
  }
  log.fileName.clear();
  return result;
}

/// A new or emptied file for writing, null when there is none (errno tells). What the log holds is nobody else's.
std::FILE* createFile(const std::string& name) {
  using velo::ssoService::Descriptor;
  Descriptor file(::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
  std::FILE* const stream = file.isOpen() ? ::fdopen(file.get(), "w") : nullptr;
  if (stream != nullptr) {
    static_cast<void>(file.release());
  }
  return stream;
}

int openLocked(LogState& log) REQUIRES(log.lock) {
  int result = closeLocked(log);
  if (log.prefix.empty()) {
    log.stream = stdout;
  } else {
    const std::string name = timeStampedName(log);
    log.stream = createFile(name);
    if (log.stream != nullptr) {
      log.fileName = name;
    } else {
      const int reason = errno;
      static_cast<void>(std::fprintf(stderr, "Attempted to create log %s\n", name.c_str()));
      errno = reason;
      std::perror(" Cannot open log file, using stdout instead ");
      log.stream = stdout;
      result = 1;
    }
  }
  log.openedAt = std::time(nullptr);
  setRotationStart(log);
  put(log, "LOG START " + dateText(log) + "\n");
  static_cast<void>(std::fflush(log.stream));
  log.lineCount = 0;
  return result;
}

/// Kept: a log that is not open counts as a file too.
bool isRotated(const LogState& log) REQUIRES(log.lock) {
  return log.stream != stdout;
}

void checkSizeLocked(LogState& log) REQUIRES(log.lock) {
  if (log.maxSize < 1 || !isRotated(log)) {
    return;
  }
  struct stat status {};
  if (lstat(log.fileName.c_str(), &status) != 0) {
    std::perror("failure getting file stats\n");
  } else if (status.st_size > log.maxSize) {
    openLocked(log);
  }
}

void checkTimeLocked(LogState& log) REQUIRES(log.lock) {
  if (log.rotationHours > 0 && isRotated(log) && std::time(nullptr) >= log.rotateAt) {
    openLocked(log);
  }
}

int setLevelLocked(LogState& log, int level) REQUIRES(log.lock) {
  if (level < LOG_LEVEL_OFF || level > LOG_LEVEL_VERBOSE) {
    return 1;
  }
  const int previous = currentLevel.exchange(level);
  if (previous == level) {
    return 0;
  }
  if (previous == LOG_LEVEL_OFF) {
    return openLocked(log);
  }
  return level == LOG_LEVEL_OFF ? closeLocked(log) : 0;
}

/// What stands before the message: the time of day if it is on, and the caller's position.
struct LineHead {
  char time[32] = "";
  const char* file;
  int line;
};

LineHead makeHead(LogState& log, const char* file, int line) REQUIRES(log.lock) {
  LineHead head;
  head.file = file;
  head.line = line;
  if (log.timestamps) {
    std::timespec precise{};
    clock_gettime(CLOCK_REALTIME, &precise);
    const std::tm now = localTime(log);
    LineText time(head.time, sizeof head.time - 1);
    time.addNumber(now.tm_hour, 2);
    time.add(":");
    time.addNumber(now.tm_min, 2);
    time.add(":");
    time.addNumber(now.tm_sec, 2);
    time.add(".");
    time.addNumber(static_cast<int>(precise.tv_nsec / NANOSECONDS_PER_MILLISECOND), 3);
    time.add(" ");
  }
  return head;
}

/// Puts the whole line into the buffer as far as it fits and returns its length, like snprintf.
std::size_t formatLine(char* buffer, std::size_t capacity, const LineHead& head, const char* format, va_list arguments)
    __attribute__((format(printf, 4, 0)));

std::size_t formatLine(char* buffer, std::size_t capacity, const LineHead& head, const char* format,
                       va_list arguments) {
  LineText text(buffer, capacity);
  text.add(head.time);
  text.add("[");
  text.add(head.file != nullptr ? head.file : "(null)");
  text.add(":");
  text.addNumber(head.line);
  text.add("] ");
  text.addFormatted(format, arguments);
  // Kept: the format decides about the line end, not the finished text.
  const std::size_t formatLength = std::strlen(format);
  if (formatLength > 0 && format[formatLength - 1] != '\n') {
    text.add("\n");
  }
  return text.length();
}

void writeLine(LogState& log, const LineHead& head, const char* format, va_list arguments) REQUIRES(log.lock)
    __attribute__((format(printf, 3, 0)));

void writeLine(LogState& log, const LineHead& head, const char* format, va_list arguments) {
  char shortLine[USUAL_LINE_BYTES];
  char* line = shortLine;
  std::unique_ptr<char[]> longLine;
  va_list again;
  va_copy(again, arguments);
  std::size_t length = formatLine(shortLine, sizeof shortLine, head, format, arguments);
  if (length >= sizeof shortLine) {
    longLine.reset(new (std::nothrow) char[length + 1]);
    if (longLine) {
      line = longLine.get();
      formatLine(line, length + 1, head, format, again);
    } else {
      length = sizeof shortLine - 1;  // no memory for all of it: its beginning is better than nothing
    }
  }
  va_end(again);
  put(log, {line, length});
  static_cast<void>(std::fflush(log.stream));
}

}  // namespace

void log_message(const char* file, int line, int level, const char* format, ...) {
  if (level > currentLevel.load(std::memory_order_relaxed) || format == nullptr) {
    return;
  }
  const ErrnoKeeper keeper;
  LogState& log = state();
  const MutexGuard guard(log.lock);
  if (log.stream == nullptr) {
    log.stream = stdout;
  }
  va_list arguments;
  va_start(arguments, format);
  writeLine(log, makeHead(log, file, line), format, arguments);
  va_end(arguments);
  if (++log.lineCount == LINES_BETWEEN_SIZE_CHECKS) {
    checkSizeLocked(log);
    log.lineCount = 0;
  }
  checkTimeLocked(log);
}

void log_redact_secrets(bool redact) {
  redactsSecrets = redact;
}

const char* log_secret(const std::string& text) {
  return redactsSecrets ? "[redacted]" : text.c_str();
}

void log_hurry_when(bool (*isEnding)()) {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  log.standardOutput.hurryWhen(isEnding);
}

int log_init(const char* prefix, int level, int timestamps) {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  log.prefix = prefix != nullptr ? prefix : "";
  log.timestamps = timestamps != 0;
  log.fileName.clear();
  currentLevel = LOG_LEVEL_OFF;
  return setLevelLocked(log, level);
}

int log_set_level(int level) {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  return setLevelLocked(log, level);
}

int log_set_level_name(const char* name) {
  return log_set_level(log_level_from_name(name));
}

int log_level_from_name(const char* name) {
  static constexpr const char* NAMES[] = {"error", "warning", "info", "debug", "verbose"};
  int level = LOG_LEVEL_OFF;
  for (const char* known : NAMES) {
    ++level;
    if (std::strcmp(known, name) == 0) {
      return level;
    }
  }
  return LOG_LEVEL_OFF;
}

void log_set_max_size_kb(unsigned kb) {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  log.maxSize = static_cast<std::int32_t>(1000U * kb);  // Kept: the product is taken in 32 bits.
  checkSizeLocked(log);
}

void log_set_rotation_hours(int hours) {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  log.rotationHours = hours;
  setRotationStart(log);
  checkTimeLocked(log);
}

int log_open() {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  return openLocked(log);
}

int log_close() {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  return closeLocked(log);
}

void log_check_size() {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  checkSizeLocked(log);
}

void log_check_time() {
  LogState& log = state();
  const MutexGuard guard(log.lock);
  checkTimeLocked(log);
}
