// Says in the log that a table fills, before what it refuses is missed.
#pragma once

#include "platform/base/log.h"

#include <cstdint>
#include <string>

namespace vvl::fp
{

class FillMark
{
  public:
    static constexpr uint64_t full_percent = 80;
    static constexpr uint64_t free_percent = 70; // lower, so that a table at the limit does not fill the log

    // Logs where the fill has come to full_percent, and where it is below
    // free_percent again. name() is asked for then alone.
    template <typename Name> void look(uint64_t used, uint64_t max, Name name)
    {
        if (!filled_ && used * 100 >= max * full_percent && max != 0) {
            filled_ = true;
            log_line(LogLevel::warn, name() + ": " + std::to_string(used) + " of " + std::to_string(max) +
                                         " in use; what goes beyond is not learned");
        } else if (filled_ && used * 100 < max * free_percent) {
            filled_ = false;
            log_line(LogLevel::info, name() + ": " + std::to_string(used) + " of " + std::to_string(max) +
                                         " in use, enough room again");
        }
    }

  private:
    bool filled_ = false;
};

} // namespace vvl::fp
