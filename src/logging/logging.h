#pragma once

#include <string>

// The process-wide log: one line a message on standard output or in a time-stamped file. Every function may be called
// from any thread; lines never mix. None of them throws, unless memory runs out while a file is named; a log call
// leaves errno as it was. Not for a handler that interrupts a thread: it locks.

/// Levels of messages and of the log; a message is written when its level is at most the log's.
enum LogLevel : int {
  LOG_LEVEL_OFF = 0,
  LOG_LEVEL_ERROR = 1,
  LOG_LEVEL_WARNING = 2,
  LOG_LEVEL_INFO = 3,
  LOG_LEVEL_DEBUG = 4,
  LOG_LEVEL_VERBOSE = 5
};

/// Writes one message: the time if it is on, "[file:line] ", the printf-style text and, unless the format itself ends
/// in one, a line end. Texts that come from outside are arguments, never formats.
void log_message(const char* file, int line, int level, const char* format, ...) __attribute__((format(printf, 4, 5)));

/// Starts the log: the prefix of its file names (null or empty for standard output; copied), the level, and whether
/// lines begin with the time of day. Returns what log_set_level returns.
int log_init(const char* prefix, int level, int timestamps);

/// Whether access tokens, client assertions and the bodies that carry them are kept out of the log; off at first.
void log_redact_secrets(bool redact);

/// What a line shows in the place of a secret text: the text, which has to outlive the call, or "[redacted]".
const char* log_secret(const std::string& text);

/// Once this is true, the log waits for five more seconds in all for a reader of standard output who is slow. The
/// condition is asked by any thread that logs, and must not log.
void log_hurry_when(bool (*isEnding)());

/// 0 when the level is set; 1 when it is not one of 0..5, or when the log's file could not be opened and standard
/// output is used instead; the failure code of fclose when the log's file could not be closed.
int log_set_level(int level);
int log_set_level_name(const char* name);

/// 1..5 for "error", "warning", "info", "debug", "verbose"; 0, off, for any other text.
int log_level_from_name(const char* name);

/// A new file is started when the current one is larger than so many thousand bytes; looked at every 100 lines.
void log_set_max_size_kb(unsigned kb);

/// A new file is started so many hours after the current one; 0 for never.
void log_set_rotation_hours(int hours);

/// Opens the log's destination anew (a new file, if a prefix is set), closing the one in use. Returns as log_set_level.
int log_open();

/// Ends the log's destination. A later message goes to standard output. Returns 0 or the failure code of fclose.
int log_close();

void log_check_size();
void log_check_time();

// The log calls of the sources. Each source defines its name once: constexpr const char* LOG_SOURCE = "Discovery";
#define LOG_AT(level, ...) log_message(LOG_SOURCE, __LINE__, level, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(LOG_LEVEL_ERROR, __VA_ARGS__)
#define LOG_WARNING(...) LOG_AT(LOG_LEVEL_WARNING, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT(LOG_LEVEL_INFO, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_AT(LOG_LEVEL_DEBUG, __VA_ARGS__)
#define LOG_VERBOSE(...) LOG_AT(LOG_LEVEL_VERBOSE, __VA_ARGS__)
