// A network namespace of the test's own, for tests with real interfaces. It goes
// with the process.
#pragma once

#include <gtest/gtest.h>

#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vvl
{

class OwnNetwork : public testing::Test
{
  protected:
    void SetUp() override
    {
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "needs root for a network namespace of its own: " << std::strerror(errno);
        }
    }

    static void ip(const std::string &arguments)
    {
        ASSERT_EQ(std::system(("ip " + arguments).c_str()), 0) << arguments;
    }
};

} // namespace vvl
