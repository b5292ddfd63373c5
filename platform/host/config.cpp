// Parsing the configuration.
//
// A row of the key table says in which kind of section a key stands, whether
// it must be there, and how its value is checked and stored. What a section
// lacks shows only at its end, and is reported at the section's own line.
#include "platform/host/config.h"

#include "platform/base/number.h"
#include "platform/host/agent.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <vector>

namespace vvl::host
{
namespace
{

enum class SectionKind : uint8_t { none, host, store, plane, port };

struct SectionName {
    SectionKind kind;
    const char *name;
};

constexpr SectionName section_names[] = {
    {SectionKind::host, "host"},
    {SectionKind::store, "store"},
    {SectionKind::plane, "plane"},
    {SectionKind::port, "port"},
};

struct Parser;

struct Key {
    SectionKind section;
    bool required; // the section may not end without it
    const char *name;
    // Stores the value, or says in why what it must be; the key is named by the caller.
    bool (*set)(Parser &parser, const std::string &value, std::string &why);
};

struct Parser {
    explicit Parser(const std::string &path) : file(path) {}

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
    SectionKind section = SectionKind::none;
    std::string section_title;            // as in the file, for messages
    unsigned section_line = 0;            // where it began
    std::set<std::string> keys;           // seen in this section
    std::map<std::string, unsigned> seen; // sections seen, with their lines
    std::map<uint32_t, uint32_t> ifx_by_phyid;
    std::map<std::string, uint32_t> ifx_by_interface;
    std::map<uint32_t, unsigned> line_by_ifx; // where the port's section began
};

// ---- Values ------------------------------------------------------------

std::string_view trim(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string_view without_comment(std::string_view line)
{
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] == '#' && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t')) {
            return line.substr(0, i);
        }
    }
    return line;
}

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

template <typename Value> struct Word {
    const char *text;
    Value value;
};

template <typename Value, size_t count>
bool parse_word(const std::string &text, const Word<Value> (&words)[count], Value &value, std::string &why)
{
    why = "must be ";
    for (size_t i = 0; i < count; i++) {
        if (text == words[i].text) {
            value = words[i].value;
            return true;
        }
        why += (i == 0 ? "" : i + 1 < count ? ", " : " or ") + std::string(words[i].text);
    }
    return false;
}

bool parse_path(const Parser &parser, const std::string &value, std::string &path, std::string &why)
{
    if (value.size() > config_path_length_max) {
        why = "must be a path of at most " + std::to_string(config_path_length_max) + " bytes";
        return false;
    }
    // Joining leaves an absolute path as it is.
    path = (std::filesystem::path(parser.file).parent_path() / value).string();
    return true;
}

// ---- Keys --------------------------------------------------------------

constexpr Word<LogLevel> log_levels[] = {
    {"debug", LogLevel::debug}, {"info", LogLevel::info}, {"warn", LogLevel::warn}, {"error", LogLevel::error}};
constexpr Word<StoreKind> store_kinds[] = {{"local", StoreKind::local}, {"redis", StoreKind::redis}};
constexpr Word<PlaneKind> plane_kinds[] = {{"soft", PlaneKind::soft}, {"ebpf", PlaneKind::ebpf}};
constexpr Word<bool> port_roles[] = {{"access", false}, {"uplink", true}};

bool set_module(Parser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.network.module, why);
}

bool set_log_level(Parser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, log_levels, parser.config.log_level, why);
}

bool set_log_file(Parser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.log_file, why);
}

bool set_startup(Parser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.startup, why);
}

bool set_store_kind(Parser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, store_kinds, parser.config.store, why);
}

// The options' own checks come with the store, when everything is known.
bool set_store_address(Parser &parser, const std::string &value, std::string &)
{
    parser.config.redis.address = value;
    return true;
}

bool set_store_prefix(Parser &parser, const std::string &value, std::string &)
{
    parser.config.redis.prefix = value;
    return true;
}

bool set_credentials(Parser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.redis.credentials, why);
}

bool set_plane_kind(Parser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, plane_kinds, parser.config.plane, why);
}

bool set_pin_folder(Parser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.ebpf.pin_folder, why);
}

bool set_phyid(Parser &parser, const std::string &value, std::string &why)
{
    SwitchPort &port = parser.config.network.ports.back();
    if (!parse_number(value, 0, phyid_max, port.phyid, why)) {
        return false;
    }
    const auto [other, fresh] = parser.ifx_by_phyid.emplace(port.phyid, port.ifx);
    if (!fresh) {
        why = "is that of [port " + std::to_string(other->second) + "] already";
    }
    return fresh;
}

bool set_pvid(Parser &parser, const std::string &value, std::string &why)
{
    return parse_number(value, 1, pvid_max, parser.config.network.ports.back().pvid, why);
}

bool set_role(Parser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, port_roles, parser.config.network.ports.back().uplink, why);
}

// What Linux takes as the name of an interface.
bool is_interface_name(const std::string &text)
{
    return text.size() <= interface_length_max && text != "." && text != ".." &&
           text.find_first_of("/: \t") == std::string::npos;
}

bool set_interface(Parser &parser, const std::string &value, std::string &why)
{
    SwitchPort &port = parser.config.network.ports.back();
    if (!is_interface_name(value)) {
        why = "must be 1 to " + std::to_string(interface_length_max) + " bytes without '/', ':' and blanks";
        return false;
    }
    const auto [other, fresh] = parser.ifx_by_interface.emplace(value, port.ifx);
    if (!fresh) {
        why = "is that of [port " + std::to_string(other->second) + "] already";
    }
    port.interface = value;
    return fresh;
}

constexpr Key key_table[] = {
    {SectionKind::host, false, "module", set_module},
    {SectionKind::host, false, "log-level", set_log_level},
    {SectionKind::host, false, "log-file", set_log_file},
    {SectionKind::host, false, "startup", set_startup},
    {SectionKind::store, false, "kind", set_store_kind},
    {SectionKind::store, false, "address", set_store_address},
    {SectionKind::store, false, "prefix", set_store_prefix},
    {SectionKind::store, false, "credentials", set_credentials},
    {SectionKind::plane, false, "kind", set_plane_kind},
    {SectionKind::plane, false, "pin-folder", set_pin_folder},
    {SectionKind::port, true, "phyid", set_phyid},
    {SectionKind::port, false, "pvid", set_pvid},
    {SectionKind::port, false, "role", set_role},
    {SectionKind::port, false, "interface", set_interface},
};

// ---- Lines -------------------------------------------------------------

bool Parser::parse_line(std::string_view text, std::string &why)
{
    text = trim(without_comment(text));
    if (text.empty()) {
        return true;
    }
    // A path with a NUL would be cut short where it is used.
    if (std::any_of(text.begin(), text.end(),
                    [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0; })) {
        why = "a control character in the line";
        return false;
    }
    if (text.front() == '[') {
        if (text.back() != ']') {
            why = "a section line must end in ']'";
            return false;
        }
        return close_section(why) && open_section(trim(text.substr(1, text.size() - 2)), why);
    }
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        why = "neither '[section]' nor 'key = value'";
        return false;
    }
    return set_key(std::string(trim(text.substr(0, equals))), std::string(trim(text.substr(equals + 1))), why);
}

bool Parser::open_section(std::string_view title, std::string &why)
{
    const size_t space = title.find_first_of(" \t");
    const std::string name(title.substr(0, space));
    const std::string_view number = space != std::string_view::npos ? trim(title.substr(space)) : std::string_view();
    const auto row = std::find_if(std::begin(section_names), std::end(section_names),
                                  [&](const SectionName &known) { return name == known.name; });
    if (row == std::end(section_names) || (row->kind != SectionKind::port && !number.empty())) {
        why = "no section '[" + std::string(title) + "]' is known";
        return false;
    }
    section = row->kind;
    section_title = name;
    section_line = line;
    keys.clear();
    if (section == SectionKind::port && !open_port(number, why)) {
        return false;
    }
    const auto [earlier, fresh] = seen.emplace(section_title, line);
    if (!fresh) {
        why = "section '[" + section_title + "]' is in line " + std::to_string(earlier->second) + " already";
    }
    return fresh;
}

bool Parser::open_port(std::string_view number, std::string &why)
{
    SwitchPort port;
    if (!parse_number(number, 1, ifx_max, port.ifx, why)) {
        why = "[port N]: N " + why;
        return false;
    }
    if (config.network.ports.size() >= port_count_max) {
        why = "more than " + std::to_string(port_count_max) + " ports";
        return false;
    }
    config.network.ports.push_back(port);
    section_title = "port " + std::to_string(port.ifx);
    line_by_ifx.emplace(port.ifx, line);
    return true;
}

// Checks that the section which ends here had its required keys.
bool Parser::close_section(std::string &why)
{
    for (const Key &key : key_table) {
        if (key.section == section && key.required && !keys.contains(key.name)) {
            why = "section '[" + section_title + "]' lacks '" + key.name + "'";
            line = section_line;
            return false;
        }
    }
    return true;
}

bool Parser::set_key(const std::string &name, const std::string &value, std::string &why)
{
    if (section == SectionKind::none) {
        why = "'" + name + "' stands before the first section";
        return false;
    }
    const auto key = std::find_if(std::begin(key_table), std::end(key_table),
                                  [&](const Key &known) { return known.section == section && name == known.name; });
    if (key == std::end(key_table)) {
        why = "no key '" + name + "' is known in '[" + section_title + "]'";
        return false;
    }
    if (!keys.insert(name).second) {
        why = "'" + name + "' is in this section already";
        return false;
    }
    if (value.empty()) {
        why = "'" + name + "' has no value";
        return false;
    }
    if (!key->set(*this, value, why)) {
        why = "'" + name + "' " + why + ", not '" + value + "'";
        return false;
    }
    return true;
}

bool Parser::finish(std::string &why)
{
    if (!close_section(why)) {
        return false;
    }
    if (config.store == StoreKind::redis && config.redis.address.empty()) {
        why = "[store]: kind = redis needs an 'address'";
        return false;
    }
    if (!seen.contains("host")) {
        why = "the file ends without a section '[host]'";
        return false;
    }
    return check_interfaces(why);
}

// Whether a port needs an interface is known only here, as [plane] may stand behind the ports.
bool Parser::check_interfaces(std::string &why)
{
    const SwitchPort *port = port_without_interface(config);
    if (config.plane != PlaneKind::ebpf || port == nullptr) {
        return true;
    }
    why = "section '[port " + std::to_string(port->ifx) + "]' lacks 'interface', which the ebpf plane needs";
    line = line_by_ifx.at(port->ifx);
    return false;
}

} // namespace

const SwitchPort *port_without_interface(const HostConfig &config)
{
    const auto &ports = config.network.ports;
    const auto found =
        std::find_if(ports.begin(), ports.end(), [](const SwitchPort &port) { return port.interface.empty(); });
    return found != ports.end() ? &*found : nullptr;
}

bool parse_config(std::string_view text, const std::string &file, HostConfig &config, std::string &why)
{
    Parser parser(file);
    std::string reason;
    bool good = true;
    while (good && !text.empty()) {
        const size_t end = text.find('\n');
        parser.line++;
        good = parser.parse_line(text.substr(0, end), reason);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    if (!good || !parser.finish(reason)) {
        why = file + ":" + std::to_string(std::max(parser.line, 1u)) + ": " + reason;
        return false;
    }
    if (parser.config.network.module.empty()) {
        parser.config.network.module = default_module_path();
    }
    config = std::move(parser.config);
    return true;
}

bool read_config(const std::string &file, HostConfig &config, std::string &why)
{
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) {
        why = file + ": is a folder";
        return false;
    }
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::string text(config_size_max + 1, '\0');
    if (!stream) {
        why = file + ": " + std::strerror(errno);
        return false;
    }
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (stream.bad()) {
        why = file + ": cannot be read";
        return false;
    }
    text.resize(static_cast<size_t>(stream.gcount()));
    if (text.size() > config_size_max) {
        why = file + ": larger than " + std::to_string(config_size_max) + " bytes";
        return false;
    }
    return parse_config(text, file, config, why);
}

} // namespace vvl::host
