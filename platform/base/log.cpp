#include "platform/base/log.h"

#include <cstdio>
#include <utility>

namespace vvl
{
namespace
{

LogSink &current_sink()
{
    static LogSink sink;
    return sink;
}

} // namespace

LogSink set_log_sink(LogSink sink)
{
    return std::exchange(current_sink(), std::move(sink));
}

void log_line(LogLevel level, const std::string &text)
{
    static const char *const names[] = {"debug", "info", "warning", "error"};
    if (current_sink()) {
        current_sink()(level, text);
    } else {
        std::fprintf(stderr, "%s: %s\n", names[static_cast<int>(level)], text.c_str());
    }
}

} // namespace vvl
