// The keys of the configuration. A row says in which kind of section a key is,
// whether the section must have it, and how its value is checked and stored.
#include "platform/host/config_impl.h"

#include <filesystem>

namespace vvl::host
{
namespace
{

// ---- Values ------------------------------------------------------------

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

bool parse_path(const ConfigParser &parser, const std::string &value, std::string &path, std::string &why)
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

bool set_module(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.network.module, why);
}

bool set_log_level(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, log_levels, parser.config.log_level, why);
}

bool set_log_file(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.log_file, why);
}

bool set_startup(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.startup, why);
}

bool set_store_kind(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, store_kinds, parser.config.store, why);
}

// The store checks its options itself, when all of them are known.
bool set_store_address(ConfigParser &parser, const std::string &value, std::string &)
{
    parser.config.redis.address = value;
    return true;
}

bool set_store_prefix(ConfigParser &parser, const std::string &value, std::string &)
{
    parser.config.redis.prefix = value;
    return true;
}

bool set_credentials(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.redis.credentials, why);
}

bool set_plane_kind(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, plane_kinds, parser.config.plane, why);
}

bool set_pin_folder(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_path(parser, value, parser.config.ebpf.pin_folder, why);
}

bool set_phyid(ConfigParser &parser, const std::string &value, std::string &why)
{
    SwitchPort &port = parser.config.network.ports.back();
    if (!parse_number(value, 0, phyid_max, port.phyid, why)) {
        return false;
    }
    const auto [other, fresh] = parser.ifx_by_phyid.emplace(port.phyid, port.ifx);
    if (!fresh) {
        why = "already belongs to [port " + std::to_string(other->second) + "]";
    }
    return fresh;
}

bool set_pvid(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_number(value, 1, pvid_max, parser.config.network.ports.back().pvid, why);
}

bool set_role(ConfigParser &parser, const std::string &value, std::string &why)
{
    return parse_word(value, port_roles, parser.config.network.ports.back().uplink, why);
}

// What Linux takes as the name of an interface.
bool is_interface_name(const std::string &text)
{
    return text.size() <= interface_length_max && text != "." && text != ".." &&
           text.find_first_of("/: \t") == std::string::npos;
}

bool set_interface(ConfigParser &parser, const std::string &value, std::string &why)
{
    SwitchPort &port = parser.config.network.ports.back();
    if (!is_interface_name(value)) {
        why = "must be 1 to " + std::to_string(interface_length_max) + " bytes without '/', ':' or blanks";
        return false;
    }
    const auto [other, fresh] = parser.ifx_by_interface.emplace(value, port.ifx);
    if (!fresh) {
        why = "already belongs to [port " + std::to_string(other->second) + "]";
    }
    port.interface = value;
    return fresh;
}

constexpr ConfigKey key_table[] = {
    {ConfigSection::host, false, "module", set_module},
    {ConfigSection::host, false, "log-level", set_log_level},
    {ConfigSection::host, false, "log-file", set_log_file},
    {ConfigSection::host, false, "startup", set_startup},
    {ConfigSection::store, false, "kind", set_store_kind},
    {ConfigSection::store, false, "address", set_store_address},
    {ConfigSection::store, false, "prefix", set_store_prefix},
    {ConfigSection::store, false, "credentials", set_credentials},
    {ConfigSection::plane, false, "kind", set_plane_kind},
    {ConfigSection::plane, false, "pin-folder", set_pin_folder},
    {ConfigSection::port, true, "phyid", set_phyid},
    {ConfigSection::port, false, "pvid", set_pvid},
    {ConfigSection::port, false, "role", set_role},
    {ConfigSection::port, false, "interface", set_interface},
};

} // namespace

std::span<const ConfigKey> config_keys()
{
    return key_table;
}

} // namespace vvl::host
