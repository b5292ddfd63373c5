// Log categories and lines of a module.
//
// The lines come from the module and may contain line feeds, but one line in the
// log must stay one line. So control characters are replaced here, before a sink
// gets the line.
#include "platform/host/services.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace vvl::host
{
namespace
{

struct Category {
    std::string name;
};

// Handles stay valid for the life of the process, so categories are never removed.
std::map<std::string, std::unique_ptr<Category>, std::less<>> &categories()
{
    static std::map<std::string, std::unique_ptr<Category>, std::less<>> all;
    return all;
}

ZlogSink &current_sink()
{
    static ZlogSink sink;
    return sink;
}

void write_to_stderr(const ZlogLine &line)
{
    std::fprintf(stderr, "%s: %s\n", line.category.c_str(), line.text.c_str());
}

int known_level(int level)
{
    for (int known : {TQ_ZLOG_FATAL, TQ_ZLOG_ERROR, TQ_ZLOG_WARN, TQ_ZLOG_NOTICE, TQ_ZLOG_INFO}) {
        if (level >= known) {
            return known;
        }
    }
    return TQ_ZLOG_DEBUG;
}

std::string bounded_text(const char *text, size_t length)
{
    return text != nullptr ? std::string(text, strnlen(text, length)) : std::string();
}

std::string clean_line(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    for (char &c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = ' ';
        }
    }
    return text;
}

// The formatted text, or the format itself where it is malformed.
std::string format_text(const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    std::string text = format;
    if (length >= 0) {
        text.resize(static_cast<size_t>(length) + 1);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_copy is not followed.
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    return text;
}

} // namespace

ZlogSink set_zlog_sink(ZlogSink sink)
{
    return std::exchange(current_sink(), std::move(sink));
}

void flush_zlog()
{
    if (current_sink().flush) {
        current_sink().flush();
    }
}

} // namespace vvl::host

using namespace vvl::host;

void *tq_zlog_init(const char *category)
{
    if (category == nullptr || *category == '\0') {
        return nullptr;
    }
    auto found = categories().find(category);
    if (found == categories().end()) {
        if (categories().size() >= TQ_ZLOG_CATEGORY_COUNT_MAX) {
            return nullptr;
        }
        found = categories().emplace(category, std::make_unique<Category>(Category{category})).first;
    }
    return found->second.get();
}

void tqdf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen, long line, int level,
               const char *format, ...)
{
    if (category == nullptr || format == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    std::string text = format_text(format, args);
    va_end(args);

    const ZlogLine record{static_cast<const Category *>(category)->name,
                          bounded_text(file, filelen),
                          bounded_text(func, funclen),
                          line,
                          known_level(level),
                          clean_line(std::move(text))};
    if (current_sink().write) {
        current_sink().write(record);
    } else {
        write_to_stderr(record);
    }
}
