// Store records for the module's decoders, built from a fuzzer's input: parts
// that are missing, addresses of any length, operations, phases and errors of
// any value. Each part is a heap block of its own and of its exact size, so
// that reading past it is seen. Values come from small ranges most of the time,
// so that records are about the same few ports, addresses and VLANs.
#pragma once

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "tests/fuzz/byte_reader.h"
#include "tq_mom.h"
#include "u_bridge.pb-c.h"

#include <memory>
#include <string_view>
#include <vector>

namespace vvl::test
{

class Records
{
  public:
    explicit Records(ByteReader &in) : in_(in) {}

    // Objects of records; null now and then. They live as long as this.
    PBridge__VvlanOuiCfg *oui_cfg();
    PBridge__VvlanPortCfg *port_cfg();
    SBridge__VvlanPortNoty *port_noti();
    UBridge__VvlanJoin *join();
    UBridge__MacVidRegNoti *mac_noti();
    tq_mom_hash_t *glb_hash();

    // The object of a subscription, by the full name of its message.
    void *object_of(std::string_view type);

    // A record with this object; null now and then.
    tq_mom_record_t *record(void *object);

  private:
    template <typename T> T *keep(const T &part)
    {
        auto kept = std::make_unique<Kept<T>>(part);
        T *address = &kept->part;
        parts_.push_back(std::move(kept));
        return address;
    }
    bool missing() { return in_.below(16) == 15; }
    uint8_t *address_bytes(size_t size, bool mask);
    PLibpub__Mac *mac(bool mask);
    PBridge__VvlanGlbCfg *glb_cfg();

    struct Part {
        virtual ~Part() = default;
    };
    template <typename T> struct Kept final : Part {
        explicit Kept(const T &value) : part(value) {}
        T part; // last, so that the block ends with it
    };

    ByteReader &in_;
    std::vector<std::unique_ptr<Part>> parts_;
    std::vector<std::unique_ptr<uint8_t[]>> bytes_;
};

} // namespace vvl::test
