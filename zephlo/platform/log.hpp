// The system log and standard output, as the extension writes to them: one line
// per call, the text alone. Hosts pick stderr (default) or syslog; tests install a
// sink to read what was written. Any thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace zephlo::platform {

enum class LogTarget { Stderr, Syslog };

// Writes one line to the system log.
void log(std::string_view line);
// Writes one line to standard output (the socket's diagnostics go there).
void writeStdout(std::string_view line);

void setLogTarget(LogTarget target);

using LineSink = std::function<void(std::string_view)>;
// Replaces where log lines (and stdout lines) go; an empty sink restores the default.
void setLogSink(LineSink sink);
void setStdoutSink(LineSink sink);

}  // namespace zephlo::platform
