#include "tests/fuzz/records.h"

namespace vvl::test
{
namespace
{

constexpr size_t address_size = 6;

} // namespace

// An address of one of four makers, or the mask of a prefix; the rest of the
// size is zero.
uint8_t *Records::address_bytes(size_t size, bool mask)
{
    auto bytes = std::make_unique<uint8_t[]>(size);
    uint8_t whole[address_size] = {};
    const uint32_t kind = in_.u8();
    if (kind >= 0xf0) {
        const auto any = in_.bytes(address_size);
        std::copy(any.begin(), any.end(), whole);
    } else if (mask) {
        for (uint32_t bit = 0; bit < kind % (8 * address_size + 1); bit++) {
            whole[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
        }
    } else {
        whole[2] = static_cast<uint8_t>(kind % 4);
        whole[5] = static_cast<uint8_t>(kind / 4 % 8);
    }
    std::copy_n(whole, std::min(size, address_size), bytes.get());
    bytes_.push_back(std::move(bytes));
    return bytes_.back().get();
}

PLibpub__Mac *Records::mac(bool mask)
{
    if (missing()) {
        return nullptr;
    }
    PLibpub__Mac address = P_LIBPUB__MAC__INIT;
    const uint32_t size = in_.below(32);
    address.data.len = size < 12 ? size : address_size;
    address.data.data = missing() ? nullptr : address_bytes(address.data.len, mask);
    return keep(address);
}

PBridge__VvlanOuiCfg *Records::oui_cfg()
{
    if (missing()) {
        return nullptr;
    }
    PBridge__VvlanOuiCfg object = P_BRIDGE__VVLAN_OUI_CFG__INIT;
    if (!missing()) {
        PBridge__BOui oui = P_BRIDGE__B_OUI__INIT;
        oui.mac = mac(false);
        oui.mask = mac(true);
        object.index = keep(oui);
    }
    return keep(object);
}

PBridge__VvlanPortCfg *Records::port_cfg()
{
    if (missing()) {
        return nullptr;
    }
    PBridge__VvlanPortCfg object = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    if (!missing()) {
        PBridge__VvlanIndex key = P_BRIDGE__VVLAN_INDEX__INIT;
        key.ifx = in_.one_of({1, 2, 3, 4, 5, 63, 64});
        object.index = keep(key);
    }
    object.enable = in_.one_of({1, 1, 1, 0, 2});
    object.mode = in_.one_of({1, 1, 0, 3});
    return keep(object);
}

SBridge__VvlanPortNoty *Records::port_noti()
{
    if (missing()) {
        return nullptr;
    }
    SBridge__VvlanPortNoty object = S_BRIDGE__VVLAN_PORT_NOTY__INIT;
    if (!missing()) {
        SBridge__VvlanIndex key = S_BRIDGE__VVLAN_INDEX__INIT;
        key.phyid = in_.one_of({257, 258, 259, 260, 261, 319, 320});
        object.index = keep(key);
    }
    return keep(object);
}

UBridge__VvlanJoin *Records::join()
{
    if (missing()) {
        return nullptr;
    }
    UBridge__VvlanJoin object = U_BRIDGE__VVLAN_JOIN__INIT;
    if (!missing()) {
        UBridge__VvlanIndex key = U_BRIDGE__VVLAN_INDEX__INIT;
        key.ifx = in_.one_of({1, 2, 3, 4, 5, 63, 64});
        object.index = keep(key);
    }
    return keep(object);
}

UBridge__MacVidRegNoti *Records::mac_noti()
{
    if (missing()) {
        return nullptr;
    }
    UBridge__MacVidRegNoti object = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    if (!missing()) {
        UBridge__UdpL2addrBaseIndex key = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
        key.t_fid = in_.one_of({100, 200});
        key.t_type = in_.one_of({0});
        key.t_mac = mac(false);
        object.index = keep(key);
    }
    object.port_id = in_.one_of({1, 2, 3, 4, 5, 63, 64});
    return keep(object);
}

PBridge__VvlanGlbCfg *Records::glb_cfg()
{
    PBridge__VvlanGlbCfg object = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    if (!missing()) {
        PBridge__VvlanEn en = P_BRIDGE__VVLAN_EN__INIT;
        en.vlan = in_.one_of({100, 100, 200, 0, 4095});
        en.enable = in_.one_of({1, 1, 0, 2});
        object.glb_switch = keep(en);
    }
    object.secu_mode = in_.one_of({0, 1});
    object.age_time = in_.one_of({0, 1, 2, 1440, 65536});
    if (!missing()) {
        PBridge__BQos qos = P_BRIDGE__B_QOS__INIT;
        qos.cos = in_.one_of({6, 7, 255});
        qos.dscp = in_.one_of({46, 63, 256});
        object.qos = keep(qos);
    }
    return keep(object);
}

tq_mom_hash_t *Records::glb_hash()
{
    if (missing()) {
        return nullptr;
    }
    tq_mom_hash_t hash{};
    if (!missing()) {
        hash.message = &glb_cfg()->base;
    }
    hash.count = in_.below(6);
    if (hash.count != 0 && !missing()) {
        auto fields = std::make_unique<uint8_t[]>(hash.count * sizeof(uint32_t));
        for (uint32_t i = 0; i < hash.count; i++) {
            const uint32_t number = in_.one_of({5, 6, 7, 8, 9, 0});
            std::memcpy(&fields[i * sizeof number], &number, sizeof number);
        }
        hash.fields = reinterpret_cast<uint32_t *>(fields.get());
        bytes_.push_back(std::move(fields));
    }
    hash.error = missing() ? static_cast<int32_t>(in_.u32()) : 0;
    return keep(hash);
}

void *Records::object_of(std::string_view type)
{
    if (type == p_bridge__vvlan_oui_cfg__descriptor.name) {
        return oui_cfg();
    }
    if (type == p_bridge__vvlan_port_cfg__descriptor.name) {
        return port_cfg();
    }
    return type == s_bridge__vvlan_port_noty__descriptor.name ? static_cast<void *>(port_noti()) : glb_hash();
}

tq_mom_record_t *Records::record(void *object)
{
    if (missing()) {
        return nullptr;
    }
    tq_mom_record_t record{};
    record.operate = static_cast<int32_t>(in_.one_of(
        {TQ_MOM_SET, TQ_MOM_SET, TQ_MOM_HSET, TQ_MOM_DEL, TQ_MOM_PUBLISH, TQ_MOM_WITHDRAWN, TQ_MOM_ESTABLISHED}));
    record.object = object;
    record.phase = static_cast<int32_t>(in_.one_of({0, 0, 0, 0, 1, 2, 3, 4}));
    record.error = missing() ? static_cast<int32_t>(in_.u32()) : 0;
    return keep(record);
}

} // namespace vvl::test
