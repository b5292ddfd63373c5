// snprintf with %m for MAC addresses.
//
// The format is cut behind each conversion, and the C library prints the pieces.
// It does not say how far it has read the argument list, but
// parse_printf_format() names the types of a piece's arguments, so that they
// can be skipped here. A %m becomes a %s, which takes the address as text.
// Numbered arguments ("%1$d") and %n are refused as a bad format.
#include "tq_zlog.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <printf.h>
#include <string>

namespace
{

constexpr char flags[] = "-+ #0'";
constexpr char digits[] = "0123456789";
constexpr char lengths[] = "hlLjzt";
constexpr char types[] = "diouxXaAeEfFgGcsp%m";

// A va_list is an array on some machines and decays when it is passed on; by
// pointer it is advanced for the caller as well.
using Arguments = va_list *;

// The part of the text that fits is stored; total counts the whole of it.
struct Output {
    char *buf;
    size_t size;
    size_t total = 0;

    bool print_list(const char *format, va_list args)
    {
        const size_t stored = std::min(total, size);
        const int length = std::vsnprintf(buf + stored, size - stored, format, args);
        total += length > 0 ? static_cast<size_t>(length) : 0;
        if (total > INT_MAX) {
            errno = EOVERFLOW;
        }
        return length >= 0 && total <= INT_MAX;
    }

    bool print(const char *format, ...)
    {
        va_list args;
        va_start(args, format);
        const bool good = print_list(format, args);
        va_end(args);
        return good;
    }
};

// The checks do not follow a list through a pointer, and see no difference between two types of argument.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized,bugprone-branch-clone)

bool skip_argument(int type, Arguments args)
{
    switch (type & ~PA_FLAG_MASK) {
    case PA_INT:
        if ((type & PA_FLAG_LONG_LONG) != 0) {
            va_arg(*args, long long);
        } else if ((type & PA_FLAG_LONG) != 0) {
            va_arg(*args, long);
        } else {
            va_arg(*args, int);
        }
        return true;
    case PA_CHAR:
    case PA_WCHAR:
        va_arg(*args, int);
        return true;
    case PA_DOUBLE:
        if ((type & PA_FLAG_LONG_DOUBLE) != 0) {
            va_arg(*args, long double);
        } else {
            va_arg(*args, double);
        }
        return true;
    case PA_STRING:
    case PA_WSTRING:
    case PA_POINTER:
        va_arg(*args, void *);
        return true;
    default:
        return false;
    }
}

bool print_standard(Output &out, const std::string &piece, Arguments args)
{
    va_list copy;
    va_copy(copy, *args);
    bool good = out.print_list(piece.c_str(), copy);
    va_end(copy);
    int argument_types[3]; // width, precision and value
    const size_t count = parse_printf_format(piece.c_str(), std::size(argument_types), argument_types);
    for (size_t i = 0; good && i < count; i++) {
        good = i < std::size(argument_types) && skip_argument(argument_types[i], args);
    }
    return good;
}

// Turns the piece's %m into %s.
bool print_mac(Output &out, std::string &piece, Arguments args)
{
    piece.back() = 's';
    int numbers[2] = {}; // width and precision, where they are arguments
    const auto number_count = std::count(piece.begin() + static_cast<ptrdiff_t>(piece.find('%')), piece.end(), '*');
    for (ptrdiff_t i = 0; i < number_count; i++) {
        numbers[i] = va_arg(*args, int);
    }
    char text[sizeof "0004.7622.2017"] = "(null)";
    if (const auto *mac = va_arg(*args, const uint8_t *)) {
        std::snprintf(text, sizeof text, "%02X%02X.%02X%02X.%02X%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    }
    switch (number_count) {
    case 0:
        return out.print(piece.c_str(), text);
    case 1:
        return out.print(piece.c_str(), numbers[0], text);
    default:
        return out.print(piece.c_str(), numbers[0], numbers[1], text);
    }
}

// NOLINTEND(clang-analyzer-valist.Uninitialized,bugprone-branch-clone)

// p: behind a '%'. The end of the conversion, or null where it is none.
const char *find_end(const char *p)
{
    p += std::strspn(p, flags);
    p += *p == '*' ? 1 : std::strspn(p, digits);
    if (*p == '.') {
        p++;
        p += *p == '*' ? 1 : std::strspn(p, digits);
    }
    const size_t length_size = std::strspn(p, lengths);
    p += length_size;
    const bool known = *p != '\0' && std::strchr(types, *p) != nullptr && !(*p == 'm' && length_size > 0);
    return known ? p + 1 : nullptr;
}

bool print_all(Output &out, const char *format, Arguments args)
{
    while (*format != '\0') {
        const size_t literal_size = std::strcspn(format, "%");
        if (format[literal_size] == '\0') {
            return out.print("%s", format);
        }
        const char *end = find_end(format + literal_size + 1);
        if (end == nullptr) {
            errno = EINVAL;
            return false;
        }
        std::string piece(format, end);
        if (!(piece.back() == 'm' ? print_mac(out, piece, args) : print_standard(out, piece, args))) {
            return false;
        }
        format = end;
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
    if (size > 0) {
        buf[0] = '\0';
    }
    Output out{buf, size};
    va_list args;
    va_start(args, format);
    const bool good = print_all(out, format, &args);
    va_end(args);
    return good ? static_cast<int>(out.total) : -1;
}
