#include "platform/fp/ebpf/events.h"

#include <algorithm>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <vector>

namespace vvl::fp
{
namespace
{

constexpr uint64_t tick_us = 1'000'000;
constexpr uint32_t events_per_turn_max = 4096; // then other work of the loop has its turn

// The frame as it was on the wire: the tag that the kernel had taken out is back.
std::vector<uint8_t> whole_frame(const vv_trapped &trapped)
{
    const vv_event &event = trapped.event;
    std::vector<uint8_t> frame(trapped.bytes, trapped.bytes + std::min<size_t>(event.size, sizeof trapped.bytes));
    if (event.tag_type != 0 && frame.size() >= 2 * mac_size) {
        const uint8_t tag[] = {static_cast<uint8_t>(event.tag_type >> 8), static_cast<uint8_t>(event.tag_type),
                               static_cast<uint8_t>(event.tag >> 8), static_cast<uint8_t>(event.tag)};
        frame.insert(frame.begin() + 2 * mac_size, std::begin(tag), std::end(tag));
    }
    return frame;
}

} // namespace

void EventReader::RingEnd::operator()(ring_buffer *ring) const
{
    ring_buffer__free(ring);
}

bool EventReader::start(PlaneEvents &listener, std::string &why)
{
    listener_ = &listener;
    if (ring_ != nullptr) {
        return true;
    }
    const auto sample = [](void *self, void *record, size_t size) {
        auto *reader = static_cast<EventReader *>(self);
        reader->tell(record, size);
        return ++reader->events_this_turn_ < events_per_turn_max ? 0 : -ECANCELED;
    };
    ring_.reset(ring_buffer__new(side_.events.get(), sample, this, nullptr));
    if (ring_ == nullptr) {
        why = side_.folder + "/events: cannot be read: " + error_text(errno);
        return false;
    }
    watch_ = loop_.watch_fd(ring_buffer__epoll_fd(ring_.get()), fd_readable, [this](unsigned) { consume(); });
    arm_tick();
    return true;
}

void EventReader::stop()
{
    if (ring_ == nullptr) {
        return;
    }
    loop_.unwatch_fd(watch_);
    loop_.cancel_timer(timer_);
    ring_.reset();
}

void EventReader::consume()
{
    events_this_turn_ = 0;
    ring_buffer__consume(ring_.get());
}

void EventReader::tell(const void *record, size_t size)
{
    vv_trapped trapped{};
    std::memcpy(&trapped, record, std::min(size, sizeof trapped));
    const vv_event &event = trapped.event;
    if (event.port >= VV_PORTS_MAX || (side_.shared().ports[event.port].flags & VV_PORT_USED) == 0) {
        return;
    }
    const uint32_t phyid = side_.shared().ports[event.port].phyid;
    if (event.kind == VV_EVENT_SEEN) {
        listener_->mac_seen(event.vlan, mac_of(event.mac), phyid);
    } else if (event.kind == VV_EVENT_TRAPPED) {
        listener_->voice_trapped(phyid, mac_of(event.mac), whole_frame(trapped));
    }
}

void EventReader::arm_tick()
{
    timer_ = loop_.add_timer(tick_us, [this] {
        addresses_.count_tick();
        arm_tick();
    });
}

} // namespace vvl::fp
