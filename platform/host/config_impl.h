// The parser of the configuration, as config.cpp and config_keys.cpp share it.
#pragma once

#include "platform/base/number.h"
#include "platform/host/config.h"

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>

namespace vvl::host
{

enum class ConfigSection : uint8_t { none, host, store, plane, port };

struct ConfigParser;

struct ConfigKey {
    ConfigSection section;
    bool required; // the section may not end without it
    const char *name;
    // Stores the value, or says in why what it must be; the caller adds the key's name.
    bool (*set)(ConfigParser &parser, const std::string &value, std::string &why);
};

struct ConfigParser {
    explicit ConfigParser(const std::string &path) : file(path) {}

    bool parse_line(std::string_view line, std::string &why);
    bool open_section(std::string_view title, std::string &why);
    bool open_port(std::string_view number, std::string &why);
    bool close_section(std::string &why);
    bool set_key(const std::string &name, const std::string &value, std::string &why);
    bool finish(std::string &why);
    bool check_interfaces(std::string &why);

    std::string file;
    HostConfig config;
    unsigned line = 0;
    ConfigSection section = ConfigSection::none;
    std::string section_title;            // as in the file, for messages
    unsigned section_line = 0;            // where it began
    std::set<std::string> keys;           // seen in this section
    std::map<std::string, unsigned> seen; // sections seen, with their lines
    std::map<uint32_t, uint32_t> ifx_by_phyid;
    std::map<std::string, uint32_t> ifx_by_interface;
    std::map<uint32_t, unsigned> line_by_ifx; // where the port's section began
};

// Every key of a configuration.
std::span<const ConfigKey> config_keys();

// On failure why is "must be a number from MIN to MAX".
template <typename Number>
bool parse_number(std::string_view text, int64_t min, int64_t max, Number &number, std::string &why)
{
    int64_t value = 0;
    if (!parse_integer(text, min, max, value)) {
        why = "must be a number from " + std::to_string(min) + " to " + std::to_string(max);
        return false;
    }
    number = static_cast<Number>(value);
    return true;
}

} // namespace vvl::host
