#include "base/logging.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace android::base {

static LogSeverity g_minimum = INFO;

static LogSink& Sink() {
    static LogSink sink;
    return sink;
}

bool ShouldLog(LogSeverity severity) { return severity >= g_minimum; }

LogSeverity SetMinimumLogSeverity(LogSeverity severity) {
    LogSeverity old = g_minimum;
    g_minimum = severity;
    return old;
}

LogSink SetLogSink(LogSink sink) {
    LogSink old = std::move(Sink());
    Sink() = std::move(sink);
    return old;
}

LogMessage::LogMessage(const char* file, unsigned line, LogSeverity severity, int error)
    : file_(file), line_(line), severity_(severity), error_(error), saved_errno_(errno) {}

static char SeverityLetter(LogSeverity severity) {
    static const char letters[] = "VDIWEF";
    return letters[severity];
}

void StderrLogSink(LogSeverity severity, const char* file, unsigned line,
                   const std::string& message) {
    std::string text = std::string("quarrystat: ") + SeverityLetter(severity) + " " + file + ":" +
                       std::to_string(line) + "] " + message + "\n";
    // One write per message, so lines from a dying process are not interleaved.
    ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
    (void)ignored;
}

// Forms and writes the message. Out of memory, the text cannot be formed, and a destructor
// must not throw: the place of the message is still written, from a fixed buffer.
LogMessage::~LogMessage() {
    const char* base = strrchr(file_, '/');
    base = base ? base + 1 : file_;
    try {
        std::string message = stream_.str();
        if (error_ >= 0) {
            message += ": ";
            message += strerror(error_);
        }
        if (Sink()) {
            Sink()(severity_, base, line_, message);
        } else {
            StderrLogSink(severity_, base, line_, message);
        }
    } catch (...) {
        char text[256];
        int n = snprintf(text, sizeof(text), "quarrystat: %c %s:%u] (message lost: %s)\n",
                         SeverityLetter(severity_), base, line_, strerror(ENOMEM));
        if (n > 0) {
            ssize_t ignored = write(STDERR_FILENO, text, std::min<size_t>(n, sizeof(text) - 1));
            (void)ignored;
        }
    }
    errno = saved_errno_;
}

}  // namespace android::base
