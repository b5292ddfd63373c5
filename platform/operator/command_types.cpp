// The readers of typed arguments. Each reads the whole word, or refuses it with
// a reason that quotes it. Ranges are checked here and nowhere after the parser.
#include "platform/base/number.h"
#include "platform/operator/command.h"

#include <algorithm>
#include <bit>

namespace vvl::oper
{
namespace
{

constexpr int64_t time_us_max = int64_t{10'000} * 86'400 * 1'000'000; // 10000 days

struct TimeUnit {
    const char *name;
    int64_t us;
};
// In any order: "5ms" also ends with "s", but "5m" is not a number.
constexpr TimeUnit time_units[] = {
    {"us", 1}, {"ms", 1'000}, {"s", 1'000'000}, {"m", 60'000'000}, {"h", 3'600'000'000}, {"d", 86'400'000'000},
};

bool is_prefix(const Mac &mask, unsigned &bits)
{
    bits = static_cast<unsigned>(std::popcount(to_u64(mask.data())));
    return prefix_mask(bits) == mask;
}

} // namespace

bool parse_oui(const std::string &text, Mac &mac, Mac &mask, std::string &why)
{
    const size_t slash = text.find('/');
    Mac address{};
    Mac parsed_mask{};
    if (slash == std::string::npos || !parse_mac(text.substr(0, slash), address)) {
        why = "'" + text + "' is not an OUI: expected ADDRESS/BITS or ADDRESS/MASK, as in 00:04:76:00:00:00/24";
        return false;
    }
    const std::string rest = text.substr(slash + 1);
    int64_t bits = 0;
    if (parse_integer(rest, INT32_MIN, INT32_MAX, bits)) {
        if (bits < 1 || bits > int64_t{8 * mac_size}) {
            why = "OUI " + text + ": prefix length " + rest + " is not 1 to 48";
            return false;
        }
        parsed_mask = prefix_mask(static_cast<unsigned>(bits));
    } else if (!parse_mac(rest, parsed_mask) || parsed_mask == Mac{}) {
        why = "OUI " + text + ": '" + rest + "' is neither a prefix length nor a mask";
        return false;
    }
    for (size_t i = 0; i < mac_size; i++) {
        if ((address[i] & ~parsed_mask[i]) != 0) {
            why = "OUI " + text + ": the address has bits outside its mask " + to_text(parsed_mask);
            return false;
        }
    }
    mac = address;
    mask = parsed_mask;
    return true;
}

std::string oui_text(const Mac &mac, const Mac &mask)
{
    unsigned bits = 0;
    return to_text(mac) + "/" + (is_prefix(mask, bits) ? std::to_string(bits) : to_text(mask));
}

bool read_text(const ArgumentType &, const Grammar &, const std::string &, Argument &, std::string &)
{
    return true;
}

bool read_number(const ArgumentType &type, const Grammar &, const std::string &text, Argument &argument,
                 std::string &why)
{
    int64_t number = 0;
    if (!parse_integer(text, type.min, type.max, number)) {
        why = std::string(type.name) + " '" + text + "' is not " + std::to_string(type.min) + " to " +
              std::to_string(type.max);
        return false;
    }
    argument.number = static_cast<uint64_t>(number);
    return true;
}

bool read_port(const ArgumentType &type, const Grammar &grammar, const std::string &text, Argument &argument,
               std::string &why)
{
    if (!read_number(type, grammar, text, argument, why)) {
        return false;
    }
    const auto &ports = grammar.ports.all;
    if (!ports.empty() && std::find(ports.begin(), ports.end(), argument.number) == ports.end()) {
        why = "port " + text + " does not exist";
        return false;
    }
    return true;
}

bool read_time(const ArgumentType &, const Grammar &, const std::string &text, Argument &argument, std::string &why)
{
    for (const TimeUnit &unit : time_units) {
        const std::string_view name = unit.name;
        int64_t count = 0;
        if (!text.ends_with(name) ||
            !parse_integer(std::string_view(text).substr(0, text.size() - name.size()), 0, INT64_MAX, count)) {
            continue;
        }
        if (count > time_us_max / unit.us) {
            why = "time '" + text + "' is more than 10000 days";
            return false;
        }
        argument.number = static_cast<uint64_t>(count * unit.us);
        return true;
    }
    why = "'" + text + "' is not a time: expected a number with us, ms, s, m, h or d, as in 30s";
    return false;
}

bool read_oui(const ArgumentType &, const Grammar &, const std::string &text, Argument &argument, std::string &why)
{
    return parse_oui(text, argument.mac, argument.mask, why);
}

bool read_range(const ArgumentType &type, const Grammar &grammar, const std::string &text, Argument &argument,
                std::string &why)
{
    const size_t dots = text.find("..");
    Argument last;
    if (dots == std::string::npos) {
        why = "'" + text + "' is not a range: expected FIRST..LAST";
        return false;
    }
    if (!read_number(type, grammar, text.substr(0, dots), argument, why) ||
        !read_number(type, grammar, text.substr(dots + 2), last, why)) {
        return false;
    }
    if (last.number < argument.number) {
        why = "range '" + text + "' ends before it begins";
        return false;
    }
    argument.last = last.number;
    return true;
}

bool read_word(const ArgumentType &type, const Grammar &, const std::string &text, Argument &, std::string &why)
{
    const std::string padded = "|" + std::string(type.words) + "|";
    if (text.find('|') == std::string::npos && padded.find("|" + text + "|") != std::string::npos) {
        return true;
    }
    why = std::string(type.name) + " '" + text + "' is not one of " + type.words;
    return false;
}

} // namespace vvl::oper
