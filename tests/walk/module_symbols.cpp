#include "tests/walk/module_symbols.h"

#include <cstdio>
#include <dlfcn.h>

namespace vvl::walk
{
namespace
{

template <typename Symbol> bool find_symbol(void *library, const char *name, Symbol *&symbol)
{
    symbol = reinterpret_cast<Symbol *>(dlsym(library, name));
    if (symbol == nullptr) {
        fprintf(stderr, "the module has no symbol %s\n", name);
    }
    return symbol != nullptr;
}

} // namespace

bool ModuleSymbols::find(const std::string &path)
{
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        fprintf(stderr, "module '%s' is not loaded\n", path.c_str());
        return false;
    }
    const bool found =
        find_symbol(library, "g_udp_vvlan_glb_cfg", global) && find_symbol(library, "g_udp_vvlan_oui", oui_buckets) &&
        find_symbol(library, "g_vvlan_ace_id_pool", ace_ids) && find_symbol(library, "oui_cfg_scan_over", over[0]) &&
        find_symbol(library, "port_cfg_scan_over", over[1]) && find_symbol(library, "glb_cfg_scan_over", over[2]) &&
        find_symbol(library, "port_noti_scan_over", over[3]) && find_symbol(library, "g_vvlan_zlog_level", log_level) &&
        find_symbol(library, "udp_vvlan_port_hash_traverse", walk_ports) &&
        find_symbol(library, "udp_vvlan_mac_hash_size", mac_count) &&
        find_symbol(library, "udp_vvlan_mac_get", find_mac) &&
        find_symbol(library, "udp_vvlan_recover_hash_traverse", walk_recovery);
    dlclose(library);
    return found;
}

} // namespace vvl::walk
