// Two clients do what they like to a handful of objects, lose their
// connections and come back, while a naive model says what the store holds.
// Whenever nothing is on its way, each connected client must have been told
// exactly that. The seed is printed and can be given in STORE_TEST_SEED.
#include "tests/unit/mom/store_harness.h"

#include "p_bridge.pb-c.h"

#include <cstdlib>
#include <map>
#include <random>

namespace vvl::mom
{
namespace
{

using StoreRandom = StoreTest;
INSTANTIATE_TEST_SUITE_P(Stores, StoreRandom, testing::ValuesIn(stores_under_test()),
                         testing::PrintToStringParamName());

constexpr uint32_t db = 4;
constexpr const char *operations[] = {"set", "del", "clear_expire", "setow", "del_ow", "begin", "end"};
constexpr int step_count = 4000;

using View = std::map<uint32_t, uint32_t>; // ifx to mode

// An object is a set of holds, each stale or not; owner 0 stands for the hold
// of a plain set. The plain cycle's mark is apart, as it is the object's.
struct ModelObject {
    uint32_t mode = 0;
    bool stale = false;
    std::map<uint64_t, bool> holds = {};
};

struct Model {
    void apply(uint32_t ifx, uint32_t mode, const std::string &operation, uint64_t owner)
    {
        if (operation.starts_with("set")) {
            objects[ifx].mode = mode;
            objects[ifx].stale = false;
            objects[ifx].holds[operation == "set" ? 0 : owner] = false;
        }
        for (auto &[key, object] : objects) {
            const bool is_it = key == ifx;
            const auto hold = owner != 0 ? object.holds.find(owner) : object.holds.end();
            const bool is_held = hold != object.holds.end();
            if (operation == "begin" && owner == 0) {
                object.stale = true;
            } else if (operation == "begin" && is_held) {
                hold->second = true;
            } else if (operation == "clear_expire" && is_it) {
                object.stale = false;
                std::ranges::for_each(object.holds, [](auto &each) { each.second = false; });
            } else if ((operation == "del" && is_it) || (operation == "end" && owner == 0 && object.stale)) {
                object.holds.clear();
            } else if (is_held && ((operation == "del_ow" && is_it) || (operation == "end" && hold->second))) {
                object.holds.erase(hold);
            }
        }
        std::erase_if(objects, [](const auto &entry) { return entry.second.holds.empty(); });
    }
    View view() const
    {
        View seen;
        for (const auto &[ifx, object] : objects) {
            seen[ifx] = object.mode;
        }
        return seen;
    }
    std::map<uint32_t, ModelObject> objects;
};

// A client that mirrors the store by its records alone.
struct Mirror {
    static int callback(void *, tq_mom_record_t *record, void *user)
    {
        auto &mirror = *static_cast<Mirror *>(user);
        const auto *cfg = static_cast<const PBridge__VvlanPortCfg *>(record->object);
        if (cfg != nullptr && record->operate == TQ_MOM_SET) {
            mirror.view[cfg->index->ifx] = cfg->mode;
        } else if (cfg != nullptr) {
            EXPECT_EQ(mirror.view.erase(cfg->index->ifx), 1u); // of nothing that it did not know
        }
        return 0;
    }
    // What a client does at its start and after a lost connection.
    void follow()
    {
        EXPECT_EQ(tq_mom_subscribe(play.ctx(name), db, make("port 0").get(), 0, callback, this), 0);
        EXPECT_EQ(tq_mom_scan(play.ctx(name), db, make("port 0").get(), 0, callback, this), 0);
    }
    Play &play;
    const char *name;
    View view = {};
    bool up = true;
};

TEST_P(StoreRandom, ClientsAreToldWhatTheStoreHolds)
{
    const char *given = std::getenv("STORE_TEST_SEED");
    const auto seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::printf("STORE_TEST_SEED=%u\n", seed);
    std::mt19937 random(seed);
    auto pick = [&](uint32_t count) { return std::uniform_int_distribution<uint32_t>(0, count - 1)(random); };

    Model model;
    Mirror mirrors[] = {{play_, "w"}, {play_, "r"}};
    mirrors[0].follow();
    mirrors[1].follow();
    for (int i = 0; i < step_count && !HasFailure(); i++) {
        Mirror &mirror = mirrors[pick(2)];
        const uint32_t kind = pick(24);
        if (!mirror.up && kind > 5) {
            continue;
        }
        if (!mirror.up || kind == 0) {
            mirror.up = !mirror.up;
            ASSERT_EQ(set_link(play_.ctx(mirror.name), db, mirror.up), 0);
            if (mirror.up) {
                mirror.follow();
            }
        } else if (kind == 1) {
            mirror.follow();
        } else if (kind <= 3) {
            loop_.run_pending();
            for (const Mirror &checked : mirrors) {
                ASSERT_TRUE(!checked.up || checked.view == model.view()) << "step " << i;
            }
        } else {
            const std::string operation = operations[pick(std::size(operations))];
            const bool is_cycle = operation == "begin" || operation == "end";
            const uint64_t owner = is_cycle ? pick(3) : 1 + pick(2);
            const uint32_t ifx = 1 + pick(5);
            const uint32_t mode = 1 + pick(1000);
            model.apply(ifx, mode, operation, owner);
            const std::string object = std::to_string(ifx) + " mode=" + std::to_string(mode);
            play_(mirror.name + (" " + operation) + " 4 port " + object + " @" + std::to_string(owner));
        }
    }
}

} // namespace
} // namespace vvl::mom
