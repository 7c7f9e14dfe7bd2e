#pragma once

/// The router's system log.
///
/// Operator messages go through `SYSLOG_message` with a number of the subsystem (always 35), a kind
/// and a severity as in syslog(3); a few lines go through `plain_syslog` without the operator
/// prefix. Any thread may call; a line is formatted first and handed to the log whole.
/// No lock that another thread waits for may be held while logging: the log can block.

/// Writes a line with the third number as severity, as in syslog(3).
void SYSLOG_message(int subsystem, int kind, int severity, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// A line without the operator prefix at a severity of syslog(3): 7 debug, 3 error.
void plain_syslog(int severity, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The three kinds of operator message: "%WAN-W-ERR: ", "%WAN-W-WARN: " and "%WAN-I-INSTANCE: "
/// before the text; the first two of one severity (B126). Macros, so that the compiler checks every
/// text against its arguments.
#define LOG_ERROR(text, ...) \
    SYSLOG_message(35, 1, 4, "%%%s-%s-%s: " text, "WAN", "W", "ERR" __VA_OPT__(, ) __VA_ARGS__)
#define LOG_WARNING(text, ...) \
    SYSLOG_message(35, 2, 4, "%%%s-%s-%s: " text, "WAN", "W", "WARN" __VA_OPT__(, ) __VA_ARGS__)
#define LOG_INFO(text, ...) \
    SYSLOG_message(35, 0, 6, "%%%s-%s-%s: " text, "WAN", "I", "INSTANCE" __VA_OPT__(, ) __VA_ARGS__)

namespace host {
/// Hands a finished line to the host's log.
void write_to_system_log(int severity, const char* line);
}  // namespace host

/// Where finished lines go. Tests put their own sink in; the daemon keeps the host's log.
using LogSink = void (*)(int severity, const char* line);
/// Returns the sink before. Null restores the host's log.
LogSink set_log_sink(LogSink sink);
