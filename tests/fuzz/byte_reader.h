// A fuzzer's input as a stream of small decisions.
//
// A target builds its records from the stream, so that nearly every input is
// a record of some kind and no byte is spent on passing a parser that is not
// under test. After its end the stream continues with zeros.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <span>
#include <string>

namespace vvl::test
{

class ByteReader
{
  public:
    explicit ByteReader(std::span<const uint8_t> input) : rest_(input) {}

    bool at_end() const { return rest_.empty(); }

    uint8_t u8()
    {
        const auto next = bytes(1);
        return next.empty() ? 0 : next[0];
    }
    uint16_t u16() { return static_cast<uint16_t>(u8() << 8 | u8()); }
    uint32_t u32()
    {
        const uint32_t high = u16();
        return high << 16 | u16();
    }
    bool flag() { return (u8() & 1) != 0; }

    // 0 to count - 1; count is 1 to 256.
    uint32_t below(uint32_t count) { return u8() % count; }

    // Mostly one of the values, sometimes any number at all.
    uint32_t one_of(std::initializer_list<uint32_t> values)
    {
        const uint32_t choice = u8();
        return choice >= 0xf0 ? u32() : std::data(values)[choice % values.size()];
    }

    // At most size bytes of the input.
    std::span<const uint8_t> bytes(size_t size)
    {
        const auto taken = rest_.first(std::min(size, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    // At most size bytes of the input as text.
    std::string text(size_t size = SIZE_MAX)
    {
        const auto taken = bytes(size);
        return {taken.begin(), taken.end()};
    }

  private:
    std::span<const uint8_t> rest_;
};

// Ends the run as a finding; what names the rule that was broken.
inline void require(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "fuzz: broken rule: %s\n", what);
        std::abort();
    }
}

} // namespace vvl::test
