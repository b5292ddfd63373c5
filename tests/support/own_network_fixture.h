// The fixture of tests that each have a network namespace of their own.
#pragma once

#include "tests/support/own_network.h"

#include <gtest/gtest.h>

namespace vvl::test
{

class OwnNetwork : public testing::Test
{
  protected:
    void SetUp() override
    {
        if (const std::string &why = enter_own_network(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        enter_empty_network(); // an earlier test of the process may have left its interfaces
    }

    static void ip(const std::string &arguments) { run_command("ip " + arguments); }
};

} // namespace vvl::test
