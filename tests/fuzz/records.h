// Store records for the module's decoders, built from a fuzzer's input: parts
// that are missing, addresses of any length, operations, phases and errors of
// any value. Each part is a heap block of its own and of its exact size, so
// that reading past it is seen. Values come from small ranges most of the time,
// so that records are about the same few ports, addresses and VLANs.
#pragma once

#include "tests/fuzz/byte_reader.h"
#include "tq_mom.h"

#include <memory>
#include <vector>

namespace vvl::test
{

// What it hands out lives as long as it does.
class Records
{
  public:
    explicit Records(ByteReader &in) : in_(in) {}

    // A message of this type; null now and then. The address in one that is a mask is a prefix.
    ProtobufCMessage *message(const ProtobufCMessageDescriptor &type, bool is_mask = false);

    // Fields of the global configuration; null now and then.
    tq_mom_hash_t *glb_hash();

    // A record with this object; null now and then.
    tq_mom_record_t *record(void *object);

  private:
    uint8_t *block(size_t size) { return blocks_.emplace_back(std::make_unique<uint8_t[]>(size)).get(); }
    template <typename T> T *keep(const T &part)
    {
        return reinterpret_cast<T *>(std::memcpy(block(sizeof part), &part, sizeof part));
    }
    bool missing() { return in_.below(16) == 15; }
    ProtobufCBinaryData address(bool is_mask);

    ByteReader &in_;
    std::vector<std::unique_ptr<uint8_t[]>> blocks_;
};

} // namespace vvl::test
