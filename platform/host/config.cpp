// Reads the configuration line by line. A section that lacks a key is found
// only at its end, and is reported at the section's own line.
#include "platform/host/config.h"

#include "platform/base/file.h"
#include "platform/host/agent.h"
#include "platform/host/config_impl.h"

#include <algorithm>
#include <cctype>

namespace vvl::host
{
namespace
{

struct SectionName {
    ConfigSection kind;
    const char *name;
};

constexpr SectionName section_names[] = {
    {ConfigSection::host, "host"},
    {ConfigSection::store, "store"},
    {ConfigSection::plane, "plane"},
    {ConfigSection::port, "port"},
};

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

} // namespace

// ---- Lines -------------------------------------------------------------

bool ConfigParser::parse_line(std::string_view text, std::string &why)
{
    if (text.size() > input_line_size_max) {
        why = "the line is longer than " + std::to_string(input_line_size_max) + " bytes";
        return false;
    }
    text = trim(without_comment(text));
    if (text.empty()) {
        return true;
    }
    // A path would be cut at a NUL.
    if (std::any_of(text.begin(), text.end(),
                    [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0; })) {
        why = "the line has a control character";
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
        why = "expected '[section]' or 'key = value'";
        return false;
    }
    return set_key(std::string(trim(text.substr(0, equals))), std::string(trim(text.substr(equals + 1))), why);
}

bool ConfigParser::open_section(std::string_view title, std::string &why)
{
    const size_t space = title.find_first_of(" \t");
    const std::string name(title.substr(0, space));
    const std::string_view number = space != std::string_view::npos ? trim(title.substr(space)) : std::string_view();
    const auto row = std::find_if(std::begin(section_names), std::end(section_names),
                                  [&](const SectionName &known) { return name == known.name; });
    if (row == std::end(section_names) || (row->kind != ConfigSection::port && !number.empty())) {
        why = "unknown section '[" + std::string(title) + "]'";
        return false;
    }
    section = row->kind;
    section_title = name;
    section_line = line;
    keys.clear();
    if (section == ConfigSection::port && !open_port(number, why)) {
        return false;
    }
    const auto [earlier, fresh] = seen.emplace(section_title, line);
    if (!fresh) {
        why = "section '[" + section_title + "]' is already in line " + std::to_string(earlier->second);
    }
    return fresh;
}

bool ConfigParser::open_port(std::string_view number, std::string &why)
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

// Checks that the section that ends here has its required keys.
bool ConfigParser::close_section(std::string &why)
{
    for (const ConfigKey &key : config_keys()) {
        if (key.section == section && key.required && !keys.contains(key.name)) {
            why = "section '[" + section_title + "]' lacks '" + key.name + "'";
            line = section_line;
            return false;
        }
    }
    return true;
}

bool ConfigParser::set_key(const std::string &name, const std::string &value, std::string &why)
{
    if (section == ConfigSection::none) {
        why = "'" + name + "' comes before the first section";
        return false;
    }
    const auto key = std::find_if(config_keys().begin(), config_keys().end(), [&](const ConfigKey &known) {
        return known.section == section && name == known.name;
    });
    if (key == config_keys().end()) {
        why = "unknown key '" + name + "' in '[" + section_title + "]'";
        return false;
    }
    if (!keys.insert(name).second) {
        why = "'" + name + "' is already in this section";
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

bool ConfigParser::finish(std::string &why)
{
    if (!close_section(why)) {
        return false;
    }
    if (config.store == StoreKind::redis && config.redis.address.empty()) {
        why = "[store]: kind = redis needs an 'address'";
        return false;
    }
    if (!seen.contains("host")) {
        why = "the file has no section '[host]'";
        return false;
    }
    return check_interfaces(why);
}

// Whether a port needs an interface is known only here, as [plane] may come after the ports.
bool ConfigParser::check_interfaces(std::string &why)
{
    const SwitchPort *port = port_without_interface(config);
    if (config.plane != PlaneKind::ebpf || port == nullptr) {
        return true;
    }
    why = "section '[port " + std::to_string(port->ifx) + "]' lacks 'interface', which the ebpf plane needs";
    line = line_by_ifx.at(port->ifx);
    return false;
}

const SwitchPort *port_without_interface(const HostConfig &config)
{
    const auto &ports = config.network.ports;
    const auto found =
        std::find_if(ports.begin(), ports.end(), [](const SwitchPort &port) { return port.interface.empty(); });
    return found != ports.end() ? &*found : nullptr;
}

bool parse_config(std::string_view text, const std::string &file, HostConfig &config, std::string &why)
{
    ConfigParser parser(file);
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
    std::string text;
    if (!read_text_file(file, text, why, config_size_max)) {
        return false;
    }
    return parse_config(text, file, config, why);
}

} // namespace vvl::host
