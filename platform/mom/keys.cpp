// Keys as text, and templates. Writing is the definition of the text form;
// reading accepts a text only where writing gives it back, so that an object
// of another process cannot have two names.
#include "platform/mom/keys.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace vvl::mom
{
namespace
{

constexpr char absent_text[] = "-";
constexpr char empty_text[] = "\"\"";

enum class KeyKind { number, text, mac, unsupported };

KeyKind kind_of(const ProtobufCFieldDescriptor &field)
{
    if (field.label == PROTOBUF_C_LABEL_REPEATED || (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0) {
        return KeyKind::unsupported;
    }
    if (field.type == PROTOBUF_C_TYPE_UINT32) {
        return KeyKind::number;
    }
    if (field.type == PROTOBUF_C_TYPE_STRING) {
        return KeyKind::text;
    }
    if (field.type == PROTOBUF_C_TYPE_MESSAGE && (field.reserved_flags & TQ_MOM_OPTION_MAC) != 0) {
        const auto *mac = static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
        return mac->n_fields == 1 && mac->fields[0].type == PROTOBUF_C_TYPE_BYTES ? KeyKind::mac : KeyKind::unsupported;
    }
    return KeyKind::unsupported;
}

void append_hex(std::string &text, uint8_t byte)
{
    constexpr char digits[] = "0123456789abcdef";
    text += digits[byte >> 4];
    text += digits[byte & 15];
}

bool is_plain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

void append_string(std::string &text, std::string_view value)
{
    for (const char c : value) {
        if (is_plain(c)) {
            text += c;
        } else {
            text += '%';
            append_hex(text, static_cast<uint8_t>(c));
        }
    }
}

ProtobufCBinaryData mac_bytes(const ProtobufCMessage &mac)
{
    return get_member<ProtobufCBinaryData>(mac, mac.descriptor->fields[0]);
}

void append_mac(std::string &text, const ProtobufCBinaryData &bytes)
{
    for (size_t i = 0; i < bytes.len; i++) {
        if (i > 0) {
            text += ':';
        }
        append_hex(text, bytes.data[i]);
    }
}

// Appends, since a scan writes the key of every object.
void append_field(std::string &text, const ProtobufCMessage &key, const ProtobufCFieldDescriptor &field)
{
    const size_t before = text.size();
    switch (kind_of(field)) {
    case KeyKind::number: {
        char digits[std::numeric_limits<uint32_t>::digits10 + 1];
        const auto end = std::to_chars(digits, digits + sizeof digits, get_member<uint32_t>(key, field)).ptr;
        text.append(digits, end);
        break;
    }
    case KeyKind::text:
        append_string(text, get_member<const char *>(key, field));
        break;
    case KeyKind::mac: {
        const auto *mac = get_member<const ProtobufCMessage *>(key, field);
        if (mac == nullptr) {
            text += absent_text;
        } else {
            append_mac(text, mac_bytes(*mac));
        }
        break;
    }
    case KeyKind::unsupported:
        break;
    }
    if (text.size() == before) {
        text += empty_text;
    }
}

std::string field_text(const ProtobufCMessage &key, const ProtobufCFieldDescriptor &field)
{
    std::string text;
    append_field(text, key, field);
    return text;
}

bool is_zero(const ProtobufCMessage &key, const ProtobufCFieldDescriptor &field)
{
    switch (kind_of(field)) {
    case KeyKind::number:
        return get_member<uint32_t>(key, field) == 0;
    case KeyKind::text:
        return *get_member<const char *>(key, field) == '\0';
    case KeyKind::mac: {
        const auto *mac = get_member<const ProtobufCMessage *>(key, field);
        if (mac == nullptr) {
            return true;
        }
        const ProtobufCBinaryData bytes = mac_bytes(*mac);
        return std::all_of(bytes.data, bytes.data + bytes.len, [](uint8_t byte) { return byte == 0; });
    }
    case KeyKind::unsupported:
        break;
    }
    return true;
}

const ProtobufCMessage *key_of(const ProtobufCMessage &object, const ProtobufCFieldDescriptor &field)
{
    return get_member<const ProtobufCMessage *>(object, field);
}

// ---- Reading. Each parser takes one field's text. ----

bool parse_hex(std::string_view digits, uint8_t &byte)
{
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    return digits.size() == 2 && error == std::errc{} && end == digits.data() + digits.size();
}

bool parse_string(std::string_view text, std::string &value)
{
    if (text == empty_text) {
        return true;
    }
    for (size_t i = 0; i < text.size(); i++) {
        uint8_t byte = 0;
        if (text[i] != '%') {
            value += text[i];
        } else if (parse_hex(text.substr(i + 1, 2), byte)) {
            value += static_cast<char>(byte);
            i += 2;
        } else {
            return false;
        }
    }
    return true;
}

bool parse_mac_bytes(std::string_view text, std::string &value)
{
    if (text == empty_text) {
        return true;
    }
    for (size_t i = 0; i < text.size(); i += 3) {
        uint8_t byte = 0;
        if (!parse_hex(text.substr(i, 2), byte)) {
            return false;
        }
        value += static_cast<char>(byte);
    }
    return true;
}

// A copy in memory that protobuf-c will free, with a NUL behind it.
uint8_t *copy_bytes(const std::string &bytes)
{
    void *copy = std::malloc(bytes.size() + 1);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, bytes.c_str(), bytes.size() + 1);
    return static_cast<uint8_t *>(copy);
}

bool parse_field(std::string_view text, ProtobufCMessage &key, const ProtobufCFieldDescriptor &field)
{
    std::string bytes;
    switch (kind_of(field)) {
    case KeyKind::number: {
        uint32_t number = 0;
        const bool is_number = std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
        set_member(key, field, number);
        return is_number;
    }
    case KeyKind::text:
        if (!parse_string(text, bytes)) {
            return false;
        }
        set_member(key, field, copy_bytes(bytes));
        return true;
    case KeyKind::mac: {
        if (text == absent_text) {
            return true;
        }
        if (!parse_mac_bytes(text, bytes)) {
            return false;
        }
        MessagePtr mac = make_message(*static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
        set_member(*mac, mac->descriptor->fields[0], ProtobufCBinaryData{bytes.size(), copy_bytes(bytes)});
        set_member(key, field, mac.release());
        return true;
    }
    case KeyKind::unsupported:
        break;
    }
    return false;
}

bool parse_key(std::string_view text, ProtobufCMessage &key)
{
    const ProtobufCMessageDescriptor &descriptor = *key.descriptor;
    for (unsigned i = 0; i < descriptor.n_fields; i++) {
        const bool is_last = i + 1 == descriptor.n_fields;
        const size_t end = is_last ? text.size() : text.find('/');
        if (end == std::string_view::npos || !parse_field(text.substr(0, end), key, descriptor.fields[i])) {
            return false;
        }
        text.remove_prefix(is_last ? end : end + 1);
    }
    return true;
}

} // namespace

bool encode_key(const ObjectType &type, const ProtobufCMessage &object, std::string &key)
{
    key.clear();
    if (type.key == nullptr) {
        return true;
    }
    const ProtobufCMessage *message = key_of(object, *type.key);
    if (message == nullptr) {
        return false;
    }
    const ProtobufCMessageDescriptor &descriptor = *message->descriptor;
    for (unsigned i = 0; i < descriptor.n_fields; i++) {
        if (kind_of(descriptor.fields[i]) == KeyKind::unsupported) {
            return false;
        }
        if (i > 0) {
            key += '/';
        }
        append_field(key, *message, descriptor.fields[i]);
    }
    return key.size() <= key_size_max;
}

MessagePtr decode_key(const ObjectType &type, std::string_view key)
{
    MessagePtr object = make_message(*type.descriptor);
    if (type.key != nullptr) {
        if (key.size() > key_size_max) {
            return nullptr;
        }
        MessagePtr message = make_message(*static_cast<const ProtobufCMessageDescriptor *>(type.key->descriptor));
        if (!parse_key(key, *message)) {
            return nullptr;
        }
        set_member(*object, *type.key, message.release());
    }
    std::string again;
    return encode_key(type, *object, again) && again == key ? std::move(object) : nullptr;
}

Match::Match(const ObjectType &type, const ProtobufCMessage &tmpl, uint32_t flags) : key_(type.key)
{
    const ProtobufCMessage *key = key_ != nullptr ? key_of(tmpl, *key_) : nullptr;
    if (flags != TQ_MOM_MATCH_FIELDS || key == nullptr) {
        return;
    }
    for (unsigned i = 0; i < key->descriptor->n_fields; i++) {
        const ProtobufCFieldDescriptor &field = key->descriptor->fields[i];
        if ((field.reserved_flags & TQ_MOM_OPTION_MATCH) != 0 && !is_zero(*key, field)) {
            wanted_.emplace_back(i, field_text(*key, field));
        }
    }
}

bool Match::matches(const ProtobufCMessage &object) const
{
    if (wanted_.empty()) {
        return true;
    }
    const ProtobufCMessage *key = key_of(object, *key_);
    return key != nullptr && std::all_of(wanted_.begin(), wanted_.end(), [&](const auto &wanted) {
               return field_text(*key, key->descriptor->fields[wanted.first]) == wanted.second;
           });
}

} // namespace vvl::mom
