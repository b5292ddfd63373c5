// A state as lines of text, built without a stream: both the model and the
// observed switch are written in this one form after each event, so comparing
// them is comparing two strings, and a difference reads as a line.
#pragma once

#include "platform/base/mac.h"

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>

namespace vvl::walk
{

class Page
{
  public:
    void clear() { text_.clear(); }
    const std::string &text() const { return text_; }

    // Starts a line. A space stands before each thing that follows on it.
    Page &line(std::string_view word)
    {
        text_ += '\n';
        text_ += word;
        return *this;
    }
    Page &word(std::string_view word)
    {
        text_ += ' ';
        text_ += word;
        return *this;
    }
    Page &number(uint64_t value)
    {
        char text[1 + 20] = {' '};
        const auto end = std::to_chars(text + 1, text + sizeof text, value).ptr;
        text_.append(text, static_cast<size_t>(end - text));
        return *this;
    }
    Page &mac(const uint8_t *mac)
    {
        char text[1 + 2 * mac_size] = {' '};
        for (size_t i = 0; i < mac_size; i++) {
            text[1 + 2 * i] = "0123456789abcdef"[mac[i] >> 4];
            text[2 + 2 * i] = "0123456789abcdef"[mac[i] & 15];
        }
        text_.append(text, sizeof text);
        return *this;
    }
    Page &mac(const Mac &mac) { return this->mac(mac.data()); }

  private:
    std::string text_;
};

} // namespace vvl::walk
