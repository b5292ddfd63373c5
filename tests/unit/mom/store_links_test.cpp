#include "tests/unit/mom/store_harness.h"

namespace vvl::mom
{
namespace
{

// What the connection callbacks said: "lost 4", "back 4 type 2", "connected 4".
Lines link_lines;

int on_lost(void *, uint32_t db)
{
    link_lines.push_back("lost " + std::to_string(db));
    return 0;
}

int on_back(void *, uint32_t db, int32_t type)
{
    link_lines.push_back("back " + std::to_string(db) + " type " + std::to_string(type));
    return 77;
}

int on_connected(void *, void *user)
{
    link_lines.push_back("connected " + std::to_string(*static_cast<uint32_t *>(user)));
    return 0;
}

class StoreLinks : public StoreTest
{
  protected:
    void SetUp() override
    {
        link_lines.clear();
        ASSERT_EQ(tq_mom_client_set_disconnect_cb(reader_.ctx(), 4, on_lost, nullptr), 0);
        ASSERT_EQ(tq_mom_client_set_reconnect_cb(reader_.ctx(), 4, on_back, nullptr), 0);
    }
    void set_up(bool up) { ASSERT_EQ(set_link(reader_.ctx(), 4, up), 0); }
};
INSTANTIATE_TEST_SUITE_P(Stores, StoreLinks, testing::ValuesIn(stores_under_test()), testing::PrintToStringParamName());

TEST_P(StoreLinks, ConnectCallbackComesOnceAndWaitsForALostLink)
{
    LogCapture log;
    uint32_t db = 4;
    auto connect = [&] { return tq_mom_client_connect(reader_.ctx(), db, on_connected, &db); };
    ASSERT_EQ(connect(), 0);
    EXPECT_EQ(link_lines, Lines{});
    run();
    EXPECT_EQ(link_lines, Lines{"connected 4"});
    ASSERT_EQ(connect(), 0); // on its way at the cut
    set_up(false);
    ASSERT_EQ(connect(), 0);
    run();
    EXPECT_EQ(link_lines, (Lines{"connected 4", "lost 4"}));
    set_up(true);
    run();
    EXPECT_EQ(link_lines, (Lines{"connected 4", "lost 4", "back 4 type 2", "connected 4", "connected 4"}));
    EXPECT_EQ(tq_mom_client_connect_sync(reader_.ctx(), 16), TQ_MOM_E_INVALID);
    EXPECT_EQ(set_link(reader_.ctx(), 5, false), TQ_MOM_E_UNREACHABLE);
}

TEST_P(StoreLinks, ACutLinkRefusesAndDropsWhatIsOnItsWay)
{
    reader_.subscribe(4, PortCfg(0), seen_);
    reader_.subscribe(6, PortCfg(0), seen_);
    run();
    seen_.take();
    writer_.set(4, PortCfg(1));
    reader_.scan(4, PortCfg(0), seen_);
    ASSERT_EQ(tq_mom_set(reader_.ctx(), 4, PortCfg(2), Recorder::callback, &seen_), 0);
    set_up(false);
    set_up(false);
    writer_.set(6, PortCfg(10)); // another database goes on
    writer_.set(4, PortCfg(3));
    uint32_t out = 0;
    EXPECT_EQ(tq_mom_set(reader_.ctx(), 4, PortCfg(9), nullptr, nullptr), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(tq_mom_get_sync(reader_.ctx(), 4, PortCfg(1), &out), nullptr);
    EXPECT_EQ(static_cast<int32_t>(out), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(tq_mom_scan(reader_.ctx(), 4, PortCfg(0), 0, Recorder::callback, &seen_), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(tq_mom_unsubscribe(reader_.ctx(), 4, PortCfg(0), 0, Recorder::callback, &seen_), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(tq_mom_dsbegin_sync(reader_.ctx(), 4, PortCfg(0), 0, 0), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(tq_mom_client_connect_sync(reader_.ctx(), 4), TQ_MOM_E_UNREACHABLE);
    set_up(true); // before the loop has run: what was on its way is lost all the same
    run();
    writer_.set(6, PortCfg(11));
    run();
    EXPECT_EQ(seen_.take(), (Lines{"set vvlan_port_cfg 10", "set vvlan_port_cfg 11"}));
    EXPECT_EQ(link_lines, (Lines{"lost 4", "back 4 type 2"}));
    EXPECT_EQ(reader_.scan_now(4, PortCfg(0)).size(), 3u);
}

// Plain subscriptions with a scan behind them are the random test's part.
TEST_P(StoreLinks, MissedDeletionsAreMadeGoodOnceAndToWhoSubscribesAgain)
{
    Recorder filtered;
    Recorder stale;
    const std::string mac("\x00\x04\x76\x22\x20\x17", 6);
    reader_.subscribe(4, PortCfg(0), seen_);
    reader_.subscribe(4, PortCfg(0), stale);
    reader_.subscribe(4, Learned(10, 0, ""), filtered, TQ_MOM_MATCH_FIELDS);
    writer_.set(4, PortCfg(2, 1));
    writer_.set(4, PortCfg(3));
    writer_.set(4, Learned(10, 0, mac));
    writer_.set(4, Learned(11, 0, mac));
    reader_.scan_now(4, Learned(0, 0, ""));
    run();
    set_up(false);
    writer_.set(4, PortCfg(5)); // comes and goes unseen
    writer_.del(4, PortCfg(5));
    writer_.del(4, PortCfg(2));
    writer_.del(4, Learned(10, 0, mac));
    writer_.del(4, Learned(11, 0, mac));
    set_up(true);
    run();
    for (Recorder *recorder : {&seen_, &stale, &filtered}) {
        recorder->take();
    }
    writer_.del(4, PortCfg(3)); // not made again yet: silent
    run();
    EXPECT_EQ(seen_.take(), Lines{});
    for (const bool is_first : {true, false}) {
        reader_.subscribe(4, PortCfg(0), seen_);
        run();
        EXPECT_EQ(seen_.take(), is_first ? (Lines{"established", "del vvlan_port_cfg 2 mode=1", "del vvlan_port_cfg 3"})
                                         : Lines{"established"});
    }
    reader_.subscribe(4, Learned(10, 0, ""), filtered, TQ_MOM_MATCH_FIELDS);
    reader_.unsubscribe(4, PortCfg(0), stale); // what has ended forgets what it knew
    reader_.subscribe(4, PortCfg(0), stale);
    run();
    EXPECT_EQ(filtered.take(), (Lines{"established", "del mac_vid_reg_noti 10/0/00:04:76:22:20:17"}));
    EXPECT_EQ(stale.take(), (Lines{"withdrawn", "established"}));
}

TEST_P(StoreLinks, MissedDeletionOfAKeylessObjectReachesItsFields)
{
    seen_.reads_fields = true;
    const uint32_t field = 6;
    const tq_mom_callback_t callback = Recorder::callback;
    void *const user = &seen_;
    auto subscribe = [&] { return tq_mom_subscribe_field(reader_.ctx(), 4, GlbCfg(), 0, &field, &callback, &user, 1); };
    ASSERT_EQ(subscribe(), 0);
    writer_.set(4, GlbCfg(1));
    run();
    set_up(false);
    writer_.del(4, GlbCfg());
    set_up(true);
    run();
    seen_.take();
    ASSERT_EQ(subscribe(), 0);
    run();
    EXPECT_EQ(seen_.take(), (Lines{"established", "del vvlan_glb_cfg fields 6;"}));
}

TEST_P(StoreLinks, DetachedClientsAreSilent)
{
    uint32_t db = 4;
    auto client = std::make_unique<Client>(*store_, loop_, "short");
    client->subscribe(4, PortCfg(0), seen_);
    run();
    seen_.take();
    writer_.set(4, PortCfg(1));
    client->scan(4, PortCfg(0), seen_);
    ASSERT_EQ(tq_mom_client_connect(client->ctx(), db, on_connected, &db), 0);
    ASSERT_EQ(set_link(client->ctx(), 6, false), 0);
    client.reset();
    run();
    EXPECT_EQ(seen_.take(), Lines{});
    EXPECT_EQ(link_lines, Lines{});
}

TEST_P(StoreLinks, CallbacksMayDetachTheirClientOrCutItsLink)
{
    const struct {
        bool is_sync;
        bool detaches;
    } rows[] = {{false, false}, {false, true}, {true, false}, {true, true}};
    writer_.set(4, PortCfg(1));
    writer_.set(4, PortCfg(2));
    for (const auto &row : rows) {
        Client client(*store_, loop_, "short");
        Recorder first;
        Recorder other;
        client.subscribe(4, PortCfg(0), first);
        client.subscribe(4, PortCfg(0), other);
        run();
        first.take();
        other.take();
        first.on_line = [&](const std::string &) {
            row.detaches ? detach(client.ctx()) : static_cast<void>(set_link(client.ctx(), 4, false));
            EXPECT_NE(tq_mom_set(client.ctx(), 4, PortCfg(9), nullptr, nullptr), 0);
        };
        if (row.is_sync) {
            EXPECT_EQ(tq_mom_scan_sync(client.ctx(), 4, PortCfg(0), 0, Recorder::callback, &first), 0);
        }
        writer_.set(4, PortCfg(1));
        run();
        EXPECT_EQ(first.take(), Lines{"set vvlan_port_cfg 1"});
        EXPECT_EQ(other.take(), Lines{});
    }
    EXPECT_EQ(attach(reader_.ctx(), *store_, loop_, "twice"), TQ_MOM_E_INVALID);
}

} // namespace
} // namespace vvl::mom
