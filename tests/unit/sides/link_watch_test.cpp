// The link watch on real interfaces, and on messages that the kernel never sends.
#include "platform/sides/link_watch.h"

#include "platform/base/virtual_loop.h"
#include "tests/support/own_network_fixture.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstdio>

using namespace vvl;
using namespace vvl::sides;

namespace
{

class LinkWatchTest : public test::OwnNetwork
{
  protected:
    void start()
    {
        std::string why;
        ASSERT_TRUE(watch.start(why)) << why;
    }

    // Lets events in until this one is told of, and returns all that were told.
    std::string told_until(const std::string &text)
    {
        awaited = text;
        loop.expect_answers(1);
        loop.run_pending();
        return std::exchange(told, {});
    }

    void note(const std::string &interface, const LinkState &state)
    {
        const std::string text = interface + (state.ifindex == 0 ? " gone" : state.up ? " up" : " down");
        told += (told.empty() ? "" : ", ") + text;
        if (text == awaited) {
            awaited.clear();
            loop.expect_answers(-1);
        }
    }

    VirtualLoop loop;
    std::string told;
    std::string awaited;
    LinkWatch watch{loop, {"eth1", "eth2"}, [this](auto &interface, auto &state) { note(interface, state); }};
};

TEST_F(LinkWatchTest, an_interface_is_followed_from_its_first_link_to_its_successor)
{
    ip("link add eth1 type veth peer name far1");
    ip("link set far1 up");
    start();
    EXPECT_EQ(std::exchange(told, {}), "eth1 down");
    ip("link set eth1 up");
    EXPECT_EQ(told_until("eth1 up"), "eth1 up");
    ip("link set far1 down"); // no carrier, though switched on
    EXPECT_EQ(told_until("eth1 down"), "eth1 down");
    const uint32_t first = watch.state("eth1").ifindex;
    EXPECT_EQ(first, if_nametoindex("eth1"));

    ip("link del eth1");
    EXPECT_EQ(told_until("eth1 gone"), "eth1 gone");
    EXPECT_EQ(watch.state("eth1"), LinkState{});
    ip("link add eth1 up type veth peer name far1");
    ip("link set far1 up");
    EXPECT_EQ(told_until("eth1 up"), "eth1 down, eth1 up");
    EXPECT_EQ(watch.state("eth1").ifindex, if_nametoindex("eth1"));
    EXPECT_NE(watch.state("eth1").ifindex, first);
    EXPECT_EQ(watch.counters().queries, 1u);
    EXPECT_EQ(watch.counters().refused, 0u);
}

TEST_F(LinkWatchTest, another_name_is_another_interface_and_leaving_a_bridge_is_none)
{
    ip("link add eth1 type veth peer name far1");
    ip("link add br0 type bridge");
    ip("link set eth1 master br0");
    start();
    told.clear();
    ip("link set eth1 nomaster");
    ip("link set eth1 name eth2");
    EXPECT_EQ(told_until("eth2 down"), "eth1 gone, eth2 down");
}

TEST_F(LinkWatchTest, events_that_the_socket_has_no_room_for_are_made_good)
{
    ip("link add eth1 type veth peer name far1");
    start();
    told.clear();
    FILE *batch = popen("ip -batch -", "w");
    for (int i = 0; i < 1000; i++) {
        std::fputs("link set far1 mtu 1400\nlink set far1 mtu 1500\n", batch);
    }
    std::fputs("link del eth1\nlink add eth1 type veth peer name far1\n", batch);
    ASSERT_EQ(pclose(batch), 0);
    EXPECT_EQ(told_until("eth1 down"), "eth1 gone, eth1 down");
    EXPECT_GT(watch.counters().queries, 1u);
    EXPECT_EQ(watch.state("eth1").ifindex, if_nametoindex("eth1"));
}

struct NewLink {
    nlmsghdr header = {sizeof(NewLink), RTM_NEWLINK, 0, 0, 0};
    ifinfomsg info = {AF_UNSPEC, 0, 0, 7, 0, 0};
    nlattr name = {sizeof(nlattr) + 5, IFLA_IFNAME};
    char text[8] = "eth1";
};

struct Wrong {
    const char *what;
    void (*spoil)(NewLink &link);
};

const Wrong wrong_messages[] = {
    {"no whole header of a link",
     [](NewLink &link) { link.header.nlmsg_len = sizeof(nlmsghdr) + sizeof(ifinfomsg) - 4; }},
    {"longer than its datagram", [](NewLink &link) { link.header.nlmsg_len += 100; }},
    {"shorter than its own header", [](NewLink &link) { link.header.nlmsg_len = 3; }},
    {"a name without an end", [](NewLink &link) { link.name.nla_len--; }},
    {"an attribute longer than the message", [](NewLink &link) { link.name.nla_len += 100; }},
    {"no interface index", [](NewLink &link) { link.info.ifi_index = 0; }},
};

TEST(LinkWatchMessage, wrong_ones_are_counted_and_change_nothing)
{
    VirtualLoop loop;
    LinkWatch watch(loop, {"eth1"}, [](auto &, auto &) {});
    for (const Wrong &wrong : wrong_messages) {
        const uint64_t refused = watch.counters().refused;
        NewLink spoilt;
        wrong.spoil(spoilt);
        watch.take({reinterpret_cast<const uint8_t *>(&spoilt), sizeof(spoilt)});
        EXPECT_GT(watch.counters().refused, refused) << wrong.what;
        EXPECT_EQ(watch.state("eth1").ifindex, 0u) << wrong.what;
    }
    const uint64_t refused = watch.counters().refused;
    const NewLink good;
    watch.take({reinterpret_cast<const uint8_t *>(&good), sizeof(good)});
    EXPECT_EQ(watch.state("eth1").ifindex, 7u);
    EXPECT_EQ(watch.counters().refused, refused);
}

} // namespace
