// Logging to standard error with the source file and line of the logging statement.
//
//   LOG(ERROR) << "Failed to parse " << path;     plain
//   PLOG(ERROR) << "Failed to open " << path;     with ": <strerror(errno)>" appended
//
// The message is only formed when the severity is enabled, and errno is the same after the
// statement as before it.
#pragma once

#include <errno.h>

#include <functional>
#include <sstream>
#include <string>

namespace android::base {

enum LogSeverity { VERBOSE, DEBUG, INFO, WARNING, ERROR, FATAL_WITHOUT_ABORT };

bool ShouldLog(LogSeverity severity);
// Returns the previous minimum severity.
LogSeverity SetMinimumLogSeverity(LogSeverity severity);

// Where finished messages go; an empty sink restores the default (standard error). Returns the
// previous sink. Tests use it to read the messages.
using LogSink = std::function<void(LogSeverity severity, const char* file, unsigned line,
                                   const std::string& message)>;
LogSink SetLogSink(LogSink sink);
// What the default sink does: one line on standard error, "quarrystat: E file:line] message".
// For a sink that filters messages and passes the rest on.
void StderrLogSink(LogSeverity severity, const char* file, unsigned line,
                   const std::string& message);

class LogMessage {
  public:
    // error: -1 for a plain message, else the errno whose text is appended.
    LogMessage(const char* file, unsigned line, LogSeverity severity, int error);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    std::ostream& stream() { return stream_; }

  private:
    const char* file_;
    unsigned line_;
    LogSeverity severity_;
    int error_;
    int saved_errno_;
    std::ostringstream stream_;
};

}  // namespace android::base

#define LOG(severity)                                             \
    if (!::android::base::ShouldLog(::android::base::severity)) { \
    } else                                                        \
        ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity, -1).stream()

#define PLOG(severity)                                            \
    if (!::android::base::ShouldLog(::android::base::severity)) { \
    } else                                                        \
        ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity, errno).stream()
