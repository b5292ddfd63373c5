// Loading, and the steps that most tests begin with.
#include "tests/unit/module/module_test.h"

#include <cstring>
#include <regex>

namespace vvl::test
{

std::string by_line(std::string text)
{
    return std::regex_replace(text, std::regex(" / "), "\n");
}

std::string join(const Lines &lines, const Lines &prefixes)
{
    std::string text;
    for (const std::string &line : lines) {
        for (const std::string &prefix : prefixes) {
            if (line.rfind(prefix, 0) == 0) {
                text += (text.empty() ? "" : "\n") + line;
                break;
            }
        }
    }
    return text;
}

ModuleTest::ModuleTest()
{
    reset_platform();
    module_ = dlopen(VVLAN_MODULE, RTLD_NOW | RTLD_LOCAL);
    if (module_ == nullptr) {
        ADD_FAILURE() << dlerror();
        abort();
    }
    // A level file of the machine that runs the tests must not matter.
    strcpy(symbol<char>("g_vvlan_level_file"), "/nonexistent");
}

ModuleTest::~ModuleTest()
{
    EXPECT_EQ(platform().objects_live, 0) << "ACE or apply objects were not released";
    dlclose(module_);
    EXPECT_EQ(dlopen(VVLAN_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the module cannot be unloaded";
}

void ModuleTest::open()
{
    EXPECT_EQ(MODULE(udp_vvlan_global_init)(&platform().global), 0);
    EXPECT_EQ(MODULE(udp_vvlan_zlog_init)(), 0);
    MODULE(g_vvlan_zlog_level) = 5;
    forget();
}

void ModuleTest::connect(uint32_t db)
{
    EXPECT_EQ(platform().connect_cb(&platform().global, platform().connect_users.at(db)), 0);
}

void ModuleTest::start()
{
    open();
    EXPECT_EQ(MODULE(udp_vvlan_rdnd_aware_callback)(), 0);
    connect_all();
    forget();
}

void ModuleTest::connect_all()
{
    for (const uint32_t db : {4, 0, 6, 8}) {
        connect(db);
    }
}

void ModuleTest::prepare()
{
    start();
    set_oui(oui_phone, mask24);
    voice_vlan(100);
    set_port(5, 1, 1);
    forget();
}

void ModuleTest::forget()
{
    platform().lines.clear();
    platform().logs.clear();
}

tq_mom_record_t ModuleTest::record(int32_t operate, const ProtobufCMessageDescriptor &type, const std::string &fields,
                                   int32_t phase)
{
    message_ = to_message(type, fields);
    return {operate, message_.get(), phase, 0};
}

int ModuleTest::set_glb(uint32_t tag, const std::string &fields)
{
    const void *message = record(0, p_bridge__vvlan_glb_cfg__descriptor, "{" + fields + "}").object;
    return MODULE(udp_vvlan_handler_set_glb_cfg)(1, static_cast<const PBridge__VvlanGlbCfg *>(message), tag);
}

std::string ModuleTest::bits(uint32_t ifx)
{
    const vvlan_port_t *p = port(ifx);
    if (p == nullptr) {
        return "gone";
    }
    return {"eE"[p->vvlan_en], "aA"[p->auto_mod], "jJ"[p->auto_join], "tT"[p->deny_en], "mM"[p->mac_aged]};
}

void ModuleTest::set_bits(uint32_t ifx, const std::string &text)
{
    vvlan_port_t *p = port(ifx);
    p->vvlan_en = text[0] == 'E';
    p->auto_mod = text[1] == 'A';
    p->auto_join = text[2] == 'J';
    p->deny_en = text[3] == 'T';
    p->mac_aged = text[4] == 'M';
}

std::string ModuleTest::macs_of(uint32_t ifx)
{
    std::string text;
    const vvlan_list_t *head = &port(ifx)->mac_list;
    for (const vvlan_list_t *link = head->next; link != head; link = link->next) {
        EXPECT_EQ(link->next->prev, link);
        const char *base = reinterpret_cast<const char *>(link) - offsetof(vvlan_mac_t, link);
        const auto *mac = reinterpret_cast<const vvlan_mac_t *>(base);
        text += to_hex(mac->mac, sizeof mac->mac) + "@" + std::to_string(mac->ifx) + " ";
        EXPECT_EQ(MODULE(udp_vvlan_mac_get)(mac->mac), mac) << "listed but not in the table";
    }
    return text;
}

} // namespace vvl::test
