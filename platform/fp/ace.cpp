// Field records and ACE objects. A record is opaque to the application: a name,
// a kind and a value, padded to the interface's size. What a field means is a
// row of one table, so that a new field is one row and one reader.
//
// A record that cannot be made (no name, a value that is too long) is made
// without a value and refused with its ACE, as making has no way to fail.
#include "platform/fp/ace.h"

#include "platform/base/log.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace vvl::fp
{
namespace
{

struct FieldRecord {
    char name[32];      // NUL-padded; a longer name is cut, and then unknown
    uint32_t kind;      // FP_UDP_FIELD_MATCH or _ACTION
    uint32_t length;    // of the value, as it was given
    uint8_t value[228]; // length bytes, or none where they do not fit
};
static_assert(sizeof(FieldRecord) == FP_UDP_FIELD_SIZE && sizeof(fp_udp_field_t) == FP_UDP_FIELD_SIZE);

struct FieldList {
    fp_udp_fields_t head; // first, so that the list is found from its head
    uint32_t count;       // of records that were added, also of those that did not fit
    fp_udp_field_t records[ace_fields_max];
};

struct AceObject {
    fp_udp_ace_t head; // first, as the list's
    FieldList list;
};
static_assert(offsetof(FieldList, head) == 0 && offsetof(AceObject, head) == 0);

uint16_t read_u16(const uint8_t *bytes)
{
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

// ---- One reader per field: false where the value is out of range ----------

bool read_source_mac(const uint8_t *value, Rule &rule)
{
    std::copy_n(value, mac_size, rule.mac.begin());
    std::copy_n(value + mac_size, mac_size, rule.mask.begin());
    return true;
}

bool read_vid(const uint8_t *value, Rule &rule)
{
    rule.vid = read_u16(value);
    rule.vid_mask = read_u16(value + 2);
    return rule.vid <= vid_max;
}

bool read_vlan_form(const uint8_t *value, Rule &rule)
{
    rule.form = value[0];
    rule.form_mask = value[1];
    return rule.form <= static_cast<uint8_t>(VlanForm::double_tagged) && rule.form_mask <= 3;
}

// A six-byte action: its value, then five zero bytes.
bool read_action(const uint8_t *value, uint8_t limit, uint8_t &out, bool &present)
{
    out = value[0];
    present = true;
    return out <= limit && std::all_of(value + 1, value + 6, [](uint8_t byte) { return byte == 0; });
}

bool read_cos(const uint8_t *value, Rule &rule)
{
    return read_action(value, cos_max, rule.cos, rule.set_cos);
}

bool read_dscp(const uint8_t *value, Rule &rule)
{
    return read_action(value, dscp_max, rule.dscp, rule.set_dscp);
}

bool read_prio(const uint8_t *value, Rule &rule)
{
    return read_action(value, cos_max, rule.prio, rule.set_prio);
}

// VLAN 0 is for the manager to judge.
bool read_add_tag(const uint8_t *value, Rule &rule)
{
    rule.add_tag = true;
    rule.tag_vid = read_u16(value);
    return rule.tag_vid <= vid_max && read_u16(value + 2) == 0;
}

bool read_forward(const uint8_t *value, Rule &rule)
{
    rule.drop = value[0] == 0;
    return value[0] <= 1;
}

constexpr uint8_t any_acl = acl_bit(Acl::mac_vlan) | acl_bit(Acl::voice) | acl_bit(Acl::security);
constexpr uint8_t remarking_acls = acl_bit(Acl::voice) | acl_bit(Acl::security);

struct FieldType {
    std::string_view name;
    uint32_t kind;
    uint32_t length; // bytes of its value
    uint8_t acls;    // acl_bit()s of the ACLs that can carry it out
    bool (*read)(const uint8_t *value, Rule &rule);
};

const FieldType field_types[] = {
    {"src_mac", FP_UDP_FIELD_MATCH, 12, any_acl, read_source_mac},
    {"vid", FP_UDP_FIELD_MATCH, 4, any_acl, read_vid},
    {"vlan_form", FP_UDP_FIELD_MATCH, 2, any_acl, read_vlan_form},
    {"cos", FP_UDP_FIELD_ACTION, 6, remarking_acls, read_cos},
    {"ipv4_dscp", FP_UDP_FIELD_ACTION, 6, remarking_acls, read_dscp},
    {"prio_in", FP_UDP_FIELD_ACTION, 6, remarking_acls, read_prio},
    {"add_tag", FP_UDP_FIELD_ACTION, 4, acl_bit(Acl::mac_vlan), read_add_tag},
    {"fwd", FP_UDP_FIELD_ACTION, 1, remarking_acls, read_forward},
};
constexpr size_t field_type_count = std::size(field_types);

constexpr std::string_view app_types[acl_count] = {"mac_vlan_app", "vvlan_secu_pas_app", "vvlan_secu_deny_app"};

// ---- Making objects -------------------------------------------------------

fp_udp_field_t field_make(const char *name, uint32_t kind, const void *value, uint32_t length)
{
    FieldRecord record{};
    if (name) {
        std::memcpy(record.name, name, strnlen(name, sizeof record.name - 1));
    }
    record.kind = kind;
    record.length = value ? length : 0;
    if (record.length != 0 && record.length <= sizeof record.value) {
        std::memcpy(record.value, value, record.length);
    }
    fp_udp_field_t field;
    std::memcpy(field.opaque, &record, sizeof record);
    return field;
}

void field_add(fp_udp_fields_t *fields, fp_udp_field_t record)
{
    if (!fields) {
        return;
    }
    auto *list = reinterpret_cast<FieldList *>(fields);
    if (list->count < ace_fields_max) {
        list->records[list->count] = record;
    }
    list->count = std::min(list->count + 1, ace_fields_max + 1);
}

const fp_udp_fields_ops_t field_operations = {field_make, field_add};

// ---- Reading them ---------------------------------------------------------

// The reason why the record is refused, or null after it was read into rule.
// seen: one flag per row of field_types.
const char *read_field(const FieldRecord &record, Acl acl, Rule &rule, bool *seen)
{
    const FieldType *type = std::find_if(field_types, field_types + field_type_count,
                                         [&](const FieldType &row) { return row.name == record.name; });
    if (type == field_types + field_type_count) {
        return "unknown name";
    }
    if (record.kind != type->kind) {
        return "wrong kind";
    }
    if (record.length != type->length) {
        return "wrong length";
    }
    if (!(type->acls & acl_bit(acl))) {
        return "has no effect in this ACL";
    }
    if (std::exchange(seen[type - field_types], true)) {
        return "given twice";
    }
    return type->read(record.value, rule) ? nullptr : "value out of range";
}

} // namespace

std::string_view app_type_of(Acl acl)
{
    return app_types[static_cast<size_t>(acl)];
}

bool acl_of_app_type(std::string_view app_type, Acl &acl)
{
    const auto *found = std::find(app_types, app_types + acl_count, app_type);
    if (found == app_types + acl_count) {
        return false;
    }
    acl = static_cast<Acl>(found - app_types);
    return true;
}

fp_udp_ace_t *make_ace(uint64_t ace_id)
{
    if (ace_id == 0) {
        log_line(LogLevel::error, "ACE 0: the id is reserved");
        return nullptr;
    }
    auto *object = new (std::nothrow) AceObject{};
    if (!object) {
        return nullptr;
    }
    object->list.head.ops = &field_operations;
    object->head = {ace_id, &object->list.head};
    return &object->head;
}

void free_ace(fp_udp_ace_t *ace)
{
    delete reinterpret_cast<AceObject *>(ace);
}

bool read_ace(const fp_udp_ace_t &ace, Acl acl, Rule &rule, std::string &why)
{
    const FieldList &list = reinterpret_cast<const AceObject *>(&ace)->list;
    if (ace.id == 0 || ace.id > FP_UDP_ACE_COUNT_MAX) {
        why = "id is out of range (1 to " + std::to_string(FP_UDP_ACE_COUNT_MAX) + ")";
        return false;
    }
    if (list.count > ace_fields_max) {
        why = "has more than " + std::to_string(ace_fields_max) + " fields";
        return false;
    }
    Rule read{};
    read.id = ace.id;
    bool seen[field_type_count] = {};
    for (uint32_t i = 0; i < list.count; i++) {
        FieldRecord record;
        std::memcpy(&record, list.records[i].opaque, sizeof record);
        if (const char *fault = read_field(record, acl, read, seen)) {
            why = std::string("field ") + (record.name[0] ? record.name : "(no name)") + ": " + fault;
            return false;
        }
    }
    rule = read;
    return true;
}

} // namespace vvl::fp
