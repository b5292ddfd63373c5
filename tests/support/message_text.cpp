// Both directions walk a message by its descriptor, so that a new field or
// message needs nothing here. Only the field types that our messages use are
// known: uint32, bytes, sub-messages, and strings in the direction to text.
#include "tests/support/message_text.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace vvl::test
{
namespace
{

template <typename T> const T &value_at(const void *member)
{
    return *static_cast<const T *>(member);
}

std::string fields_text(const ProtobufCMessage *message);

std::string field_text(const ProtobufCFieldDescriptor &field, const void *member)
{
    if (field.type == PROTOBUF_C_TYPE_UINT32) {
        const uint32_t number = value_at<uint32_t>(member);
        return number != 0 ? ":" + std::to_string(number) : "";
    }
    if (field.type == PROTOBUF_C_TYPE_STRING) {
        const std::string text = value_at<const char *>(member);
        return text.empty() ? "" : ":" + text;
    }
    if (field.type == PROTOBUF_C_TYPE_BYTES) {
        const auto &data = value_at<ProtobufCBinaryData>(member);
        return data.len != 0 ? ":" + to_hex(data.data, data.len) : "";
    }
    const auto *message = value_at<const ProtobufCMessage *>(member);
    return message != nullptr ? fields_text(message) : "";
}

std::string fields_text(const ProtobufCMessage *message)
{
    std::string text;
    for (unsigned i = 0; i < message->descriptor->n_fields; i++) {
        const ProtobufCFieldDescriptor &field = message->descriptor->fields[i];
        const std::string value = field_text(field, reinterpret_cast<const char *>(message) + field.offset);
        if (!value.empty()) {
            text += (text.empty() ? "" : " ") + std::string(field.name) + value;
        }
    }
    return "{" + text + "}";
}

// Takes the text up to one of the characters.
std::string take_until(const char *&p, const char *ends)
{
    const char *start = p;
    return {start, p += strcspn(p, ends)};
}

void set_value(const ProtobufCFieldDescriptor &field, void *member, const std::string &text)
{
    if (field.type == PROTOBUF_C_TYPE_UINT32) {
        *static_cast<uint32_t *>(member) = static_cast<uint32_t>(std::stoul(text));
        return;
    }
    auto &data = *static_cast<ProtobufCBinaryData *>(member);
    data = {text.size() / 2, static_cast<uint8_t *>(malloc(text.size() / 2))};
    for (size_t i = 0; i < data.len; i++) {
        data.data[i] = static_cast<uint8_t>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
    }
}

// Reads "{field:value field{...}}".
ProtobufCMessage *parse(const ProtobufCMessageDescriptor &descriptor, const char *&p)
{
    auto *message = static_cast<ProtobufCMessage *>(malloc(descriptor.sizeof_message));
    protobuf_c_message_init(&descriptor, message);
    for (p++; *p != '}';) {
        const std::string name = take_until(p, ":{ }");
        const ProtobufCFieldDescriptor *field =
            protobuf_c_message_descriptor_get_field_by_name(&descriptor, name.c_str());
        if (field == nullptr) {
            throw std::invalid_argument(name);
        }
        void *member = reinterpret_cast<char *>(message) + field->offset;
        if (*p == '{') {
            *static_cast<ProtobufCMessage **>(member) =
                parse(*static_cast<const ProtobufCMessageDescriptor *>(field->descriptor), p);
        } else {
            set_value(*field, member, take_until(++p, " }"));
        }
        p += *p == ' ';
    }
    p++;
    return message;
}

} // namespace

std::string to_hex(const uint8_t *bytes, size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; i++) {
        text += "0123456789abcdef"[bytes[i] >> 4];
        text += "0123456789abcdef"[bytes[i] & 15];
    }
    return text;
}

std::string to_text(const ProtobufCMessage *message)
{
    return message->descriptor->name + fields_text(message);
}

Message to_message(const ProtobufCMessageDescriptor &descriptor, const std::string &text)
{
    const char *p = strchr(text.c_str(), '{');
    return Message(parse(descriptor, p));
}

} // namespace vvl::test
