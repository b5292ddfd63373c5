// Writes of one turn of the loop, gathered into one call of the server's: that
// costs the server little more than one write does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vvl::mom
{

class RedisWrites
{
  public:
    bool empty() const { return ends_.empty(); }
    size_t count() const { return ends_.size() / 2; }
    uint64_t first_request() const { return first_; } // the others follow it

    // Whether a write of this type and owner may join those that are gathered:
    // a call has one type and one owner, and a limit.
    bool has_room_for(const std::string &type, const std::string &owner) const;
    // There must be room. request counts for the first one only.
    void add(const std::string &type, const std::string &owner, std::string_view key, std::string_view value,
             uint64_t request);
    // What follows prefix and database in the call; lives until the writes change.
    std::vector<std::string_view> arguments() const;
    void clear();

  private:
    std::string type_;
    std::string owner_;
    uint64_t first_ = 0;
    std::string bytes_;        // keys and values
    std::vector<size_t> ends_; // of each in bytes_
};

// The answer to one write of a call.
struct RedisWritten {
    bool is_refused = false;
    uint64_t number = 0; // of its change; of a refused one that of the write before
};

// Shares a reply out among the count writes of its call: last is the number of
// the last change, refused the places of the writes that the database had no
// room for, counted from 1 and ascending. Empty where these do not fit together.
std::vector<RedisWritten> share_out(size_t count, uint64_t last, const std::vector<uint64_t> &refused);

} // namespace vvl::mom
