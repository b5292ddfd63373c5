// The log on spdlog: one sink, and a logger for each category, so each line has
// the name of the part that wrote it. The platform's own lines have the
// category "host". zlog's levels are finer than spdlog's: notice is shown
// as info, fatal as critical.
#include "platform/host/logging.h"

#include "platform/host/services.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
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

// Writes each line with one call, so that a process that dies loses none. A line
// that cannot be written is counted, and the number reported when writing works
// again: a full disk or a vanished reader must not end the agent.
class LineSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex>
{
  public:
    // descriptor: a file's, which the sink closes, or that of standard error.
    explicit LineSink(int descriptor) : descriptor_(descriptor) {}
    ~LineSink() override { replace(STDERR_FILENO); }

    void replace(int descriptor)
    {
        if (descriptor_ != STDERR_FILENO) {
            close(descriptor_);
        }
        descriptor_ = descriptor;
    }

  private:
    void sink_it_(const spdlog::details::log_msg &message) override
    {
        if (lost_ != 0) {
            const std::string text = std::to_string(lost_) + " log lines were lost: " + std::strerror(reason_);
            lost_ = write_line({"host", level_enum::warn, text}) ? 0 : lost_;
        }
        lost_ += write_line(message) ? 0 : 1;
    }

    bool write_line(const spdlog::details::log_msg &message)
    {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        size_t done = 0;
        while (done < line.size()) {
            const ssize_t count = write(descriptor_, line.data() + done, line.size() - done);
            if (count < 0 && errno != EINTR) {
                reason_ = errno;
                return false;
            }
            done += count > 0 ? static_cast<size_t>(count) : 0;
        }
        return true;
    }

    void flush_() override {}

    int descriptor_;
    uint64_t lost_ = 0; // lines since the last one that was written
    int reason_ = 0;    // errno of the last of them
};

// The descriptor of a log; negative with the reason in why. A FIFO without a
// reader is an error, and one that is full loses lines, rather than wait.
int open_log(const std::string &file, std::string &why)
{
    if (file.empty()) {
        return STDERR_FILENO;
    }
    const int descriptor = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (descriptor < 0) {
        why = "log file " + file + ": " + std::strerror(errno);
    }
    return descriptor;
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

    std::shared_ptr<LineSink> sink;
    level_enum level = level_enum::info;
    std::map<std::string, std::unique_ptr<spdlog::logger>> loggers; // by category
};

spdlog::logger &Logging::Impl::logger(const std::string &category)
{
    auto &place = loggers[category];
    if (place == nullptr) {
        place = std::make_unique<spdlog::logger>(category, sink);
        place->set_level(level);
    }
    return *place;
}

std::unique_ptr<Logging> Logging::open(const LogConfig &config, std::string &why)
{
    const int descriptor = open_log(config.file, why);
    if (descriptor < 0) {
        return nullptr;
    }
    auto impl = std::make_unique<Impl>();
    impl->level = level_of(config.level);
    impl->sink = std::make_shared<LineSink>(descriptor);
    impl->sink->set_formatter(line_formatter(config.journal && config.file.empty()));
    return std::unique_ptr<Logging>(new Logging(std::move(impl)));
}

bool Logging::reopen(const LogConfig &config, std::string &why)
{
    const int descriptor = open_log(config.file, why);
    if (descriptor < 0) {
        return false;
    }
    impl_->sink->replace(descriptor);
    impl_->sink->set_formatter(line_formatter(config.journal && config.file.empty()));
    impl_->level = level_of(config.level);
    for (auto &[category, logger] : impl_->loggers) {
        logger->set_level(impl_->level);
    }
    return true;
}

Logging::Logging(std::unique_ptr<Impl> impl) : impl_(std::move(impl))
{
    Impl *log = impl_.get();
    set_log_sink(
        [log](LogLevel level, const std::string &text) { log->logger("host").log(level_of(level), "{}", text); });
    set_zlog_sink(
        {[log](const ZlogLine &line) { log->logger(line.category).log(level_of_zlog(line.level), "{}", line.text); },
         {}});
}

Logging::~Logging()
{
    set_zlog_sink({});
    set_log_sink({});
}

} // namespace vvl::host
