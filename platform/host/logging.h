// The daemon's log: the platform's own lines and the module's, on standard
// error or in a file.
//
// Under systemd (JOURNAL_STREAM is set) a line on standard error begins with its
// syslog priority, as "<3>", which the journal removes and stores. Such a line
// has no time stamp, since the journal adds its own.
#pragma once

#include "platform/base/log.h"

#include <memory>
#include <string>

namespace vvl::host
{

struct LogConfig {
    LogLevel level = LogLevel::info; // lines below it are dropped
    std::string file;                // appended to; empty: standard error
    bool journal = false;            // prefix lines on standard error for the journal
};

// Whether standard error is the journal's.
bool journal_is_listening();

// While it lives, log_line() and tqdf_zlog() write to it. One at a time.
class Logging
{
  public:
    // Null with the reason in why where the file cannot be opened.
    static std::unique_ptr<Logging> open(const LogConfig &config, std::string &why);
    ~Logging(); // the default sinks take over again

    // Opens the file again, which may have been renamed or be another one, and
    // takes over the level. On failure why has the reason and nothing changes.
    bool reopen(const LogConfig &config, std::string &why);

    Logging(const Logging &) = delete;
    Logging &operator=(const Logging &) = delete;

  private:
    struct Impl;
    explicit Logging(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::host
