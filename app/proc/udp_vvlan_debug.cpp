/* The log level is 1 (errors) unless a level file names another one; a command
 * changes it at run time. The dumps print the tables in table order. They run
 * on the event loop like everything else, so no table changes meanwhile.
 */
#include "udp_vvlan_debug.h"

#include "ssat.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr uint32_t VVLAN_ZLOG_LEVEL_MAX = 5;
constexpr size_t VVLAN_LEVEL_TEXT_SIZE = 20; /* bytes of the level file that are read */

/* Writable, so that a debugger can point a running module elsewhere. */
char g_vvlan_level_file[] = "/var/tmp/udp_vvlan_debug";

static uint32_t vvlan_dump_index = 1; /* running row number of dump_all_mac */

/* Takes the level from the level file, if there is one with any content. Every
 * local user can write to its folder, so the start must not wait for a FIFO
 * there, and a device is not read. */
static void read_level_file(void)
{
    const int file = open(g_vvlan_level_file, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0) {
        return;
    }
    struct stat status;
    char text[VVLAN_LEVEL_TEXT_SIZE + 1] = {};
    if (fstat(file, &status) == 0 && S_ISREG(status.st_mode) && read(file, text, VVLAN_LEVEL_TEXT_SIZE) > 0) {
        const bool hexadecimal = strncasecmp(text, "0x", 2) == 0;
        /* 64 bits on every target, so that a large number never wraps into the range. */
        const long long number = strtoll(text, nullptr, hexadecimal ? 16 : 10);
        g_vvlan_zlog_level = number < 0 || number > VVLAN_ZLOG_LEVEL_MAX ? UINT32_MAX : static_cast<uint32_t>(number);
    }
    close(file);
}

int udp_vvlan_zlog_init(void)
{
    void *category = tq_zlog_init("vvlan");
    if (category == nullptr) {
        g_vvlan_zlog_category = nullptr;
        puts("<init> init zlog failed.");
        return VVLAN_E_UNAVAILABLE;
    }
    read_level_file();
    if (g_vvlan_zlog_level > VVLAN_ZLOG_LEVEL_MAX) {
        g_vvlan_zlog_level = VVLAN_ZLOG_LEVEL_MAX;
    }
    g_vvlan_zlog_category = category;
    VVLAN_LOG_INFO("<init> init zlog successfully.");
    return VVLAN_OK;
}

/* ---- Level commands ---- */

void udp_vvlan_set_zlog_level(int level)
{
    const auto value = static_cast<uint32_t>(level);
    g_vvlan_zlog_level = value > VVLAN_ZLOG_LEVEL_MAX ? VVLAN_ZLOG_LEVEL_MAX : value;
    printf("set zlog_level=%d success !\n", g_vvlan_zlog_level);
}

void udp_vvlan_show_log_level(void)
{
    static const char *const names[] = {" TQDF_ZLOG_LV_FATAL ",  " TQDF_ZLOG_LV_ERROR ", " TQDF_ZLOG_LV_WARN ",
                                        " TQDF_ZLOG_LV_NOTICE ", " TQDF_ZLOG_LV_INFO ",  " TQDF_ZLOG_LV_DEBUG "};
    puts(g_vvlan_zlog_level <= VVLAN_ZLOG_LEVEL_MAX ? names[g_vvlan_zlog_level] : " can't Distinguish !");
}

/* ---- Dumps ---- */

static void print_blank_line(void)
{
    puts("\n");
}

void udp_vvlan_dump_glb_cfg(void)
{
    const vvlan_glb_cfg_t *cfg = &g_udp_vvlan_glb_cfg;
    print_blank_line();
    printf("  Voice VLAN status        : %s\n", cfg->enable != 0 ? "ENABLE" : "DISABLE");
    printf("  Voice VLAN ID            : %d\n", cfg->vid);
    printf("  Voice VLAN security mode : %s\n", cfg->secu_mode != 0 ? "Security" : "Normal");
    printf("  Voice VLAN aging time    : %d minutes\n", cfg->age_time);
    printf("  Voice VLAN cos           : %d\n", cfg->cos);
    printf("  Voice VLAN dscp          : %d\n", cfg->dscp);
}

void udp_vvlan_dump_oui(void)
{
    int row = 1;
    print_blank_line();
    for (vvlan_list_t &head : g_udp_vvlan_oui) {
        for (vvlan_list_t *node = head.next; node != &head; node = node->next) {
            const auto *oui = VVLAN_LIST_ENTRY(node, vvlan_oui_t, link);
            printf("  <%02d> mac:" VVLAN_MAC_FORMAT "      mask:" VVLAN_MAC_FORMAT "\n", row++,
                   VVLAN_MAC_ARGS(oui->mac), VVLAN_MAC_ARGS(oui->mask));
        }
    }
}

static int dump_port_row(vvlan_port_t *port, [[maybe_unused]] void *arg)
{
    /* Column texts by bit. The last texts of trap and join are for ports that are not enabled and AUTO. */
    static const char *const mode[] = {"MANUAL", "AUTO"};
    static const char *const status[] = {"DISABLE", " ENABLE"};
    static const char *const trap[] = {"!TRAP", " TRAP", "     "};
    static const char *const secu[] = {"!SECU", " SECU"};
    static const char *const aged[] = {"!AGING", " AGING"};
    static const char *const join[] = {"UNJOIN", "JOINED", "    "};

    const vvlan_glb_cfg_t *cfg = &g_udp_vvlan_glb_cfg;
    const bool enabled_auto = port->vvlan_en != 0 && port->auto_mod != 0;
    const uint32_t joined = enabled_auto ? port->auto_join : port->vvlan_en != 0 ? 1 : 2;
    printf("    ifx:%4d      %-7s 0x%x     %-7s   %08d(s)   %-5s %6s  %-8s %04d(minute) %8d  %-10s %-4d\n", port->ifx,
           mode[port->auto_mod], port->phyid, status[port->vvlan_en], port->no_flw,
           trap[enabled_auto ? port->deny_en : 2], secu[cfg->secu_mode != 0], aged[port->mac_aged], cfg->age_time,
           port->deny_en, join[joined], cfg->vid);
    return 0;
}

void udp_vvlan_dump_port(void)
{
    print_blank_line();
    puts(
        "    PORT          MODE    PHYID         STATUS    NO_FLW_CNT    trap   secu   mac_aged   age_time    deny_en  "
        "auto_join   vvlan");
    puts(
        "    ------------- ------- ------------- --------- -----------   -----  -----  --------   --------    -------  "
        "---------  -----");
    udp_vvlan_port_hash_traverse(dump_port_row, nullptr);
}

void udp_vvlan_dump_port_mac(int ifx)
{
    print_blank_line();
    vvlan_port_t *port = udp_vvlan_port_get(static_cast<uint32_t>(ifx));
    if (port == nullptr) {
        printf("Not Found The Port by ifx=%d", ifx);
        return;
    }
    int row = 1;
    for (vvlan_list_t *node = port->mac_list.next; node != &port->mac_list; node = node->next) {
        const auto *mac = VVLAN_LIST_ENTRY(node, vvlan_mac_t, link);
        printf("  <%05d> mac: " VVLAN_MAC_FORMAT " \n", row++, VVLAN_MAC_ARGS(mac->mac));
    }
}

static int dump_mac_row(vvlan_mac_t *mac, [[maybe_unused]] void *arg)
{
    printf("  <%05d> mac: " VVLAN_MAC_FORMAT "    vid:%-4d   ifx:%d\n", vvlan_dump_index++, VVLAN_MAC_ARGS(mac->mac),
           g_udp_vvlan_glb_cfg.vid, mac->ifx);
    return 0;
}

void udp_vvlan_dump_all_mac(void)
{
    vvlan_dump_index = 1;
    print_blank_line();
    udp_vvlan_mac_hash_traverse(dump_mac_row, nullptr);
}

static int dump_recover_row(vvlan_recover_t *entry, [[maybe_unused]] void *arg)
{
    printf("ifx = %d\n", entry->ifx);
    return 0;
}

void udp_vvlan_dump_recover_entry(void)
{
    udp_vvlan_recover_each_item_op(dump_recover_row, nullptr);
}

/* ---- Registration ---- */

int udp_vvlan_at_init(void *a0, void *module, void *a2, void *a3)
{
    static const struct {
        const char *name;
        const char *argdesc;
        ssat_handler_t handler;
    } commands[] = {
        {"show-zlog-level", "void  :show current log level", udp_vvlan_show_log_level},
        {"set-zlog-level", "level=%d ", reinterpret_cast<ssat_handler_t>(udp_vvlan_set_zlog_level)},
        {"dump_glbal_configure", "void  :dump_glbal configure", udp_vvlan_dump_glb_cfg},
        {"dump_all_oui", "void  :", udp_vvlan_dump_oui},
        {"dump_all_port", "void  :", udp_vvlan_dump_port},
        {"dump_port_mac", "ifx=%d  :", reinterpret_cast<ssat_handler_t>(udp_vvlan_dump_port_mac)},
        {"dump_all_mac", "void  :", udp_vvlan_dump_all_mac},
        {"dump_recover_entry", "void  :", udp_vvlan_dump_recover_entry},
    };
    int rv = ssat_lib_init(a0, module, a2, a3);
    if (rv != 0) {
        return rv;
    }
    for (const auto &command : commands) {
        rv = ssat_reg_mod_cmd(module, command.name, 0, command.argdesc, command.handler);
    }
    return rv;
}
