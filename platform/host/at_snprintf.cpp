// snprintf with %m for MAC addresses.
//
// The format is taken apart here, because an argument can only be fetched by
// the type that its own conversion names, and %m is no conversion of the C
// library. Each standard conversion is then written by snprintf itself with a
// directive put together from the parsed parts; '*' is already resolved in
// it. Numbered arguments ("%1$d") and %n are refused as a bad format.
#include "tq_zlog.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

namespace
{

enum class Length { none, hh, h, l, ll, j, z, t, L };

struct LengthName {
    const char *text; // longer names stand before their prefixes
    Length length;
};

constexpr LengthName length_names[] = {
    {"hh", Length::hh}, {"h", Length::h}, {"ll", Length::ll}, {"l", Length::l},
    {"j", Length::j},   {"z", Length::z}, {"t", Length::t},   {"L", Length::L},
};

// One conversion, with '*' resolved.
struct Conversion {
    std::string flags;
    std::string width;     // decimal digits, or empty
    std::string precision; // with its point, or empty
    Length length = Length::none;
    char type = '\0';
};

// A va_list is an array on some machines and decays when it is passed on; by
// pointer it is advanced for the caller as well.
using Arguments = va_list *;

// The part of the text that fits is stored; total counts the whole of it.
class Output
{
  public:
    Output(char *buf, size_t size) : buf_(buf), size_(size)
    {
        if (size_ > 0) {
            buf_[0] = '\0';
        }
    }

    void append(const char *text, size_t length)
    {
        if (room() > 0) {
            const size_t stored = std::min(length, room() - 1);
            std::memcpy(buf_ + total_, text, stored);
            buf_[total_ + stored] = '\0';
        }
        total_ += length;
    }

    template <typename... Values> bool print(const char *format, Values... values)
    {
        const int length = std::snprintf(room() > 0 ? buf_ + total_ : nullptr, room(), format, values...);
        if (length < 0) {
            return false;
        }
        total_ += static_cast<size_t>(length);
        return true;
    }

    size_t total() const { return total_; }

  private:
    size_t room() const { return total_ < size_ ? size_ - total_ : 0; }

    char *buf_;
    size_t size_;
    size_t total_ = 0;
};

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): it does not follow a list through a pointer.

std::string directive(const Conversion &conversion, const char *length, char type)
{
    return "%" + conversion.flags + conversion.width + conversion.precision + length + type;
}

template <typename Value>
bool print_as(Output &out, const Conversion &conversion, const char *length, char type, Value value)
{
    return out.print(directive(conversion, length, type).c_str(), value);
}

bool print_signed(Output &out, const Conversion &c, Arguments args)
{
    switch (c.length) {
    case Length::l:
        return print_as(out, c, "l", c.type, va_arg(*args, long));
    case Length::ll:
        return print_as(out, c, "ll", c.type, va_arg(*args, long long));
    case Length::j:
        return print_as(out, c, "j", c.type, va_arg(*args, intmax_t));
    case Length::z:
        return print_as(out, c, "z", c.type, va_arg(*args, ssize_t));
    case Length::t:
        return print_as(out, c, "t", c.type, va_arg(*args, ptrdiff_t));
    case Length::hh:
        return print_as(out, c, "hh", c.type, va_arg(*args, int));
    case Length::h:
        return print_as(out, c, "h", c.type, va_arg(*args, int));
    case Length::none:
        return print_as(out, c, "", c.type, va_arg(*args, int));
    case Length::L:
        break;
    }
    return false;
}

bool print_unsigned(Output &out, const Conversion &c, Arguments args)
{
    switch (c.length) {
    case Length::l:
        return print_as(out, c, "l", c.type, va_arg(*args, unsigned long));
    case Length::ll:
        return print_as(out, c, "ll", c.type, va_arg(*args, unsigned long long));
    case Length::j:
        return print_as(out, c, "j", c.type, va_arg(*args, uintmax_t));
    case Length::z:
        return print_as(out, c, "z", c.type, va_arg(*args, size_t));
    case Length::t:
        return print_as(out, c, "t", c.type, va_arg(*args, ptrdiff_t));
    case Length::hh:
        return print_as(out, c, "hh", c.type, va_arg(*args, unsigned));
    case Length::h:
        return print_as(out, c, "h", c.type, va_arg(*args, unsigned));
    case Length::none:
        return print_as(out, c, "", c.type, va_arg(*args, unsigned));
    case Length::L:
        break;
    }
    return false;
}

bool print_floating(Output &out, const Conversion &c, Arguments args)
{
    switch (c.length) {
    case Length::none:
    case Length::l: // no effect, by the C standard
        return print_as(out, c, "", c.type, va_arg(*args, double));
    case Length::L:
        return print_as(out, c, "L", c.type, va_arg(*args, long double));
    default:
        return false;
    }
}

bool print_character(Output &out, const Conversion &c, Arguments args)
{
    if (c.length == Length::l) {
        return print_as(out, c, "l", 'c', va_arg(*args, wint_t));
    }
    return c.length == Length::none && print_as(out, c, "", 'c', va_arg(*args, int));
}

bool print_string(Output &out, const Conversion &c, Arguments args)
{
    if (c.length == Length::l) {
        return print_as(out, c, "l", 's', va_arg(*args, const wchar_t *));
    }
    return c.length == Length::none && print_as(out, c, "", 's', va_arg(*args, const char *));
}

bool print_pointer(Output &out, const Conversion &c, Arguments args)
{
    return c.length == Length::none && print_as(out, c, "", 'p', va_arg(*args, void *));
}

bool print_mac(Output &out, const Conversion &c, Arguments args)
{
    if (c.length != Length::none) {
        return false;
    }
    char text[sizeof "0004.7622.2017"] = "(null)";
    if (const auto *mac = va_arg(*args, const uint8_t *)) {
        std::snprintf(text, sizeof text, "%02X%02X.%02X%02X.%02X%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    }
    const bool left = c.flags.find('-') != std::string::npos;
    const Conversion plain{left ? "-" : "", c.width, c.precision, Length::none, 's'};
    return print_as(out, plain, "", 's', static_cast<const char *>(text));
}

struct Printer {
    const char *types;
    bool (*print)(Output &out, const Conversion &conversion, Arguments args);
};

constexpr Printer printers[] = {
    {"di", print_signed},   {"ouxX", print_unsigned}, {"aAeEfFgG", print_floating},
    {"c", print_character}, {"s", print_string},      {"p", print_pointer},
    {"m", print_mac},
};

// ---- Parsing -----------------------------------------------------------

// Digits of a number that is at most INT_MAX.
bool parse_number(const char *&p, std::string &digits)
{
    uint64_t value = 0;
    for (; *p >= '0' && *p <= '9'; p++) {
        value = value * 10 + static_cast<uint64_t>(*p - '0');
        if (value > INT_MAX) {
            return false;
        }
        digits += *p;
    }
    return true;
}

bool parse_width(const char *&p, Conversion &conversion, Arguments args)
{
    if (*p != '*') {
        return parse_number(p, conversion.width);
    }
    p++;
    const int64_t width = va_arg(*args, int);
    if (width < -INT_MAX) {
        return false;
    }
    if (width < 0) { // a negative width means left-justified
        conversion.flags += '-';
    }
    if (width != 0) { // "0" would be read as a flag
        conversion.width = std::to_string(width < 0 ? -width : width);
    }
    return true;
}

bool parse_precision(const char *&p, Conversion &conversion, Arguments args)
{
    if (*p != '.') {
        return true;
    }
    p++;
    conversion.precision += '.';
    if (*p != '*') {
        return parse_number(p, conversion.precision);
    }
    p++;
    const int precision = va_arg(*args, int);
    if (precision < 0) { // a negative precision counts as none
        conversion.precision.clear();
    } else {
        conversion.precision += std::to_string(precision);
    }
    return true;
}

// NOLINTEND(clang-analyzer-valist.Uninitialized)

void parse_length(const char *&p, Conversion &conversion)
{
    for (const LengthName &name : length_names) {
        const size_t size = std::strlen(name.text);
        if (std::strncmp(p, name.text, size) == 0) {
            conversion.length = name.length;
            p += size;
            return;
        }
    }
}

// Parses what follows a '%'; p is left behind the conversion.
bool parse_conversion(const char *&p, Conversion &conversion, Arguments args)
{
    for (; *p != '\0' && std::strchr("-+ #0'", *p) != nullptr; p++) {
        if (conversion.flags.find(*p) == std::string::npos) {
            conversion.flags += *p;
        }
    }
    if (!parse_width(p, conversion, args) || !parse_precision(p, conversion, args)) {
        return false;
    }
    parse_length(p, conversion);
    conversion.type = *p;
    if (*p != '\0') {
        p++;
    }
    return true;
}

bool print_conversion(Output &out, const Conversion &conversion, Arguments args)
{
    for (const Printer &printer : printers) {
        if (conversion.type != '\0' && std::strchr(printer.types, conversion.type) != nullptr) {
            return printer.print(out, conversion, args);
        }
    }
    return false;
}

bool print_all(Output &out, const char *format, Arguments args)
{
    const char *p = format;
    while (*p != '\0') {
        const size_t literal = std::strcspn(p, "%");
        out.append(p, literal);
        p += literal;
        if (*p == '\0') {
            break;
        }
        p++;
        if (*p == '%') {
            out.append("%", 1);
            p++;
            continue;
        }
        Conversion conversion;
        if (!parse_conversion(p, conversion, args) || !print_conversion(out, conversion, args)) {
            return false;
        }
    }
    return true;
}

} // namespace

int at_snprintf(char *buf, size_t size, const char *format, ...)
{
    if (format == nullptr || (buf == nullptr && size > 0)) {
        errno = EINVAL;
        return -1;
    }
    Output out(buf, size);
    va_list args;
    va_start(args, format);
    const bool good = print_all(out, format, &args);
    va_end(args);
    if (!good || out.total() > INT_MAX) {
        errno = good ? EOVERFLOW : EINVAL;
        return -1;
    }
    return static_cast<int>(out.total());
}
