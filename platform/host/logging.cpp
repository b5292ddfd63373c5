// The log on spdlog: one sink, and a logger for each category, so each line has
// the name of the part that wrote it. The platform's own lines have the
// category "host". zlog's levels are finer than spdlog's: notice is shown
// as info, fatal as critical.
#include "platform/host/logging.h"

#include "platform/host/services.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <sys/stat.h>

#include <cstdlib>
#include <map>

namespace vvl::host
{
namespace
{

using spdlog::level::level_enum;

struct LevelRow {
    level_enum level;
    char syslog_priority;
};

// By spdlog level, from trace up.
constexpr LevelRow level_rows[] = {
    {level_enum::trace, '7'}, {level_enum::debug, '7'}, {level_enum::info, '6'},
    {level_enum::warn, '4'},  {level_enum::err, '3'},   {level_enum::critical, '2'},
};

level_enum level_of(LogLevel level)
{
    constexpr level_enum levels[] = {level_enum::debug, level_enum::info, level_enum::warn, level_enum::err};
    return levels[static_cast<size_t>(level)];
}

level_enum level_of_zlog(int level)
{
    switch (level) {
    case TQ_ZLOG_FATAL:
        return level_enum::critical;
    case TQ_ZLOG_ERROR:
        return level_enum::err;
    case TQ_ZLOG_WARN:
        return level_enum::warn;
    case TQ_ZLOG_NOTICE:
    case TQ_ZLOG_INFO:
        return level_enum::info;
    default:
        return level_enum::debug;
    }
}

// The pattern's flag for the syslog priority.
class PriorityFlag final : public spdlog::custom_flag_formatter
{
  public:
    void format(const spdlog::details::log_msg &message, const std::tm &, spdlog::memory_buf_t &text) override
    {
        const auto row = static_cast<size_t>(message.level);
        text.push_back(row < std::size(level_rows) ? level_rows[row].syslog_priority : '6');
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<PriorityFlag>(); }
};

std::unique_ptr<spdlog::formatter> line_formatter(bool journal)
{
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<PriorityFlag>('*');
    formatter->set_pattern(journal ? "<%*>%n: %v" : "%Y-%m-%dT%H:%M:%S.%e%z %l %n: %v");
    return formatter;
}

} // namespace

bool journal_is_listening()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    if (stream == nullptr || fstat(2, &status) != 0) {
        return false;
    }
    // A service may redirect its output after the variable was set.
    return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

struct Logging::Impl {
    spdlog::logger &logger(const std::string &category);

    spdlog::sink_ptr sink;
    level_enum level = level_enum::info;
    std::map<std::string, std::unique_ptr<spdlog::logger>> loggers; // by category
};

spdlog::logger &Logging::Impl::logger(const std::string &category)
{
    auto &place = loggers[category];
    if (place == nullptr) {
        place = std::make_unique<spdlog::logger>(category, sink);
        place->set_level(level);
        place->flush_on(level_enum::warn);
    }
    return *place;
}

std::unique_ptr<Logging> Logging::open(const LogConfig &config, std::string &why)
{
    auto impl = std::make_unique<Impl>();
    impl->level = level_of(config.level);
    try {
        if (config.file.empty()) {
            impl->sink = std::make_shared<spdlog::sinks::stderr_sink_st>();
        } else {
            impl->sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(config.file);
        }
    } catch (const spdlog::spdlog_ex &error) {
        why = "log file: " + std::string(error.what());
        return nullptr;
    }
    impl->sink->set_formatter(line_formatter(config.journal && config.file.empty()));
    return std::unique_ptr<Logging>(new Logging(std::move(impl)));
}

Logging::Logging(std::unique_ptr<Impl> impl) : impl_(std::move(impl))
{
    Impl *log = impl_.get();
    set_log_sink(
        [log](LogLevel level, const std::string &text) { log->logger("host").log(level_of(level), "{}", text); });
    set_zlog_sink(
        {[log](const ZlogLine &line) { log->logger(line.category).log(level_of_zlog(line.level), "{}", line.text); },
         [log] { log->sink->flush(); }});
}

Logging::~Logging()
{
    set_zlog_sink({});
    set_log_sink({});
    impl_->sink->flush();
}

} // namespace vvl::host
