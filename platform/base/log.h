// Log lines of the platform's own parts. The lowest layers cannot know the
// host's log, so a line goes to a sink that the host (or a test) installs; the
// default writes to standard error.
#pragma once

#include <functional>
#include <string>

namespace vvl
{

enum class LogLevel { debug, info, warn, error };

using LogSink = std::function<void(LogLevel level, const std::string &text)>;

// Replaces the sink; an empty one restores the default. Returns the old one.
LogSink set_log_sink(LogSink sink);

// Writes one line. text names the object and the reason and has no line end.
void log_line(LogLevel level, const std::string &text);

} // namespace vvl
