// Messages as text, both ways, through their descriptors:
// "p_bridge.vvlan_port_cfg{index{ifx:5} enable:1 mode:1}". Fields without a
// value are left out; bytes are hexadecimal digits. A message made from text
// holds its bytes in a heap block of exactly their size, so that a sanitizer
// sees a read past them.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <memory>
#include <string>

namespace vvl::test
{

struct MessageFree {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using Message = std::unique_ptr<ProtobufCMessage, MessageFree>;

std::string to_text(const ProtobufCMessage *message);
std::string to_hex(const uint8_t *bytes, size_t size);

// The type's name may be missing: the descriptor says it. Throws on a field
// that the descriptor does not have.
Message to_message(const ProtobufCMessageDescriptor &descriptor, const std::string &text);

} // namespace vvl::test
