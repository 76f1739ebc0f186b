#include "base/logging.h"

#include <string.h>
#include <unistd.h>

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

LogMessage::~LogMessage() {
    std::string message = stream_.str();
    if (error_ >= 0) {
        message += ": ";
        message += strerror(error_);
    }
    const char* base = strrchr(file_, '/');
    base = base ? base + 1 : file_;
    if (Sink()) {
        Sink()(severity_, base, line_, message);
    } else {
        std::string text = std::string("quarrystat: ") + SeverityLetter(severity_) + " " + base +
                           ":" + std::to_string(line_) + "] " + message + "\n";
        // One write per message, so lines from a dying process are not interleaved.
        ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
        (void)ignored;
    }
    errno = saved_errno_;
}

}  // namespace android::base
