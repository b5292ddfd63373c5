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
    EXPECT_EQ(watch.state("eth1"), LinkState{});
    EXPECT_EQ(watch.state("eth2").ifindex, if_nametoindex("eth2"));
    EXPECT_EQ(watch.counters().queries, 1u);
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

TEST(LinkWatchMessage, malformed_ones_are_counted_and_change_nothing)
{
    const struct {
        const char *what;
        void (*spoil)(NewLink &link);
    } rows[] = {
        {"a short header of a link",
         [](auto &link) { link.header.nlmsg_len = sizeof(nlmsghdr) + sizeof(ifinfomsg) - 4; }},
        {"longer than its datagram", [](auto &link) { link.header.nlmsg_len += 100; }},
        {"shorter than its own header", [](auto &link) { link.header.nlmsg_len = 3; }},
        {"a name without an end", [](auto &link) { link.name.nla_len--; }},
        {"an attribute longer than the message", [](auto &link) { link.name.nla_len += 100; }},
        {"no interface index", [](auto &link) { link.info.ifi_index = 0; }},
    };
    VirtualLoop loop;
    LinkWatch watch(loop, {"eth1"}, [](auto &, auto &) {});
    const auto take = [&](const NewLink &link) {
        const uint64_t refused = watch.counters().refused;
        watch.take({reinterpret_cast<const uint8_t *>(&link), sizeof(link)});
        return watch.counters().refused > refused;
    };
    for (const auto &row : rows) {
        NewLink link;
        row.spoil(link);
        EXPECT_TRUE(take(link)) << row.what;
        EXPECT_EQ(watch.state("eth1").ifindex, 0u) << row.what;
    }
    EXPECT_FALSE(take({}));
    EXPECT_EQ(watch.state("eth1").ifindex, 7u);
}

} // namespace
