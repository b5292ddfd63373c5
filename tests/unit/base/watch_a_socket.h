// What every loop does for a descriptor: a pair of connected sockets, one end watched.
#pragma once

#include "platform/base/loop.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <vector>

namespace vvl::test
{

// run lets the loop run until the watch has ended.
inline void watch_a_socket(Loop &loop, const std::function<void()> &run)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::vector<unsigned> seen;
    LoopId watch = 0;
    watch = loop.watch_fd(fds[0], fd_writable, [&](unsigned ready) {
        seen.push_back(ready);
        if (ready == fd_writable) {
            loop.change_watch(watch, fd_readable); // the socket stays writable
            EXPECT_EQ(write(fds[1], "x", 1), 1);
            return;
        }
        char byte = 0;
        EXPECT_EQ(read(fds[0], &byte, 1), seen.size() == 2 ? 1 : 0);
        if (seen.size() == 2) {
            close(fds[1]); // a hang-up is readable too
        } else {
            loop.unwatch_fd(watch); // from inside its own handler
            loop.expect_answers(-1);
            loop.post([&] { close(fds[0]); });
        }
    });
    loop.expect_answers(1);
    run();
    EXPECT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[1], fd_readable);
}

} // namespace vvl::test
