// The order of replies and changes, and the answers to gathered writes: without
// a server.
#include "platform/mom/redis/order.h"
#include "platform/mom/redis/writes.h"

#include <gtest/gtest.h>

#include <sstream>

namespace vvl::mom
{
namespace
{

// Steps: r a request is sent; a0/5 request 0 is answered with number 5; m5 change
// 5 comes, o5 one of another type, b5 one that breaks off, q none; h the link
// connects, s5 it is up at number 5, x it is lost, X it is cut. What is handed on
// is r0 and c5.
std::string play(const std::string &steps)
{
    std::string handed;
    const auto note = [&](const std::string &what) { handed += (handed.empty() ? "" : " ") + what; };
    RedisOrder order(4);
    order.start(0);
    order.watch("t");
    std::istringstream words(steps);
    for (std::string step; words >> step;) {
        const uint64_t number = step.size() > 1 ? std::stoul(step.substr(1)) : 0;
        const std::string key = std::to_string(number);
        if (step[0] == 'r') {
            order.add(0, [&, name = "r" + std::to_string(order.next_request())](int) { note(name); });
        } else if (step[0] == 'a') {
            order.answer(number, std::stoul(step.substr(step.find('/') + 1)));
        } else if (step[0] == 's') {
            order.start(number);
        } else if (step[0] == 'h') {
            order.hold();
        } else if (step[0] == 'x' || step[0] == 'X') {
            order.stop(step[0] == 'x');
        } else {
            const std::string head = step == "q" ? "?" : key + " 1 s " + (step[0] == 'o' ? "o" : "t") + " -\n";
            const auto taken = order.take_message(head + (step[0] == 'b' ? "9 9\n" : "1 1\n" + key + "v"));
            static const char *const names[] = {nullptr, "malformed", "replaced", "missed"};
            if (taken != RedisOrder::Taken::good) {
                note(names[static_cast<int>(taken)]);
            }
        }
        while (const auto next = order.next()) {
            if (next.request) {
                next.request->done(0);
            } else {
                note(next.change ? "c" + next.change->name.key : "broken");
            }
        }
    }
    return handed;
}

TEST(RedisOrder, RepliesAndChangesTakeTheirTurns)
{
    const std::pair<const char *, const char *> rows[] = {{"r r a1/0 a0/0", "r0 r1"},
                                                          {"r a0/1 m1", "c1 r0"},
                                                          {"r m1 a0/0", "r0 c1"},
                                                          {"m1 r a0/1", "c1 r0"},
                                                          {"r r m1 a0/0 a1/1", "r0 c1 r1"},
                                                          {"r a0/0 r m1 a1/0", "r0 r1 c1"},
                                                          {"m2", "missed"},
                                                          {"m1 m1", "c1 replaced"},
                                                          {"q m1", "malformed c1"},
                                                          {"b1 m2", "broken c2"},
                                                          {"o1 m2", "c2"},
                                                          {"h m3 m4 s3 m5", "c4 c5"},
                                                          {"h m3 m4 s2 m6", "c3 c4 missed"},
                                                          {"r m1 x", "c1"},
                                                          {"r m1 X r a1/0", "r1"}};
    for (const auto &[steps, handed] : rows) {
        EXPECT_EQ(play(steps), handed) << steps;
    }
}

TEST(RedisOrder, KnowsWhatIsAwaitedAndSinceWhen)
{
    RedisOrder order(4);
    order.start(5);
    EXPECT_FALSE(order.expect(5, 10));
    EXPECT_FALSE(order.awaited_since_us());
    EXPECT_TRUE(order.expect(6, 10) && order.expect(7, 20));
    EXPECT_EQ(order.awaited_since_us(), 10u);
    EXPECT_TRUE(order.take_number(7) && order.take_number(7));
    EXPECT_FALSE(order.take_number(6)) << "of another data set";
    order.add(30, {});
    order.add(40, {});
    order.answer(0, 7).result = TQ_MOM_E_MEMORY;
    EXPECT_EQ(order.oldest_unanswered_us(), 40u);
    EXPECT_EQ(order.take_refusal(0), TQ_MOM_E_MEMORY);
    EXPECT_EQ(order.take_refusal(1) | order.take_refusal(2), 0);
    order.stop(false);
    EXPECT_FALSE(order.awaited_since_us() || order.oldest_unanswered_us());
}

TEST(RedisWrites, ShareOutTheNumbersOfTheirReply)
{
    const struct {
        size_t count;
        uint64_t last;
        std::vector<uint64_t> refused;
        std::string answers; // numbers, with a minus where a write is refused
    } rows[] = {{3, 9, {}, "7 8 9 "}, {3, 9, {1}, "-7 8 9 "}, {3, 9, {2, 3}, "9 -9 -9 "}, {2, 1, {}, ""},
                {2, 9, {2, 1}, ""},   {2, 9, {3}, ""},        {1, 9, {1, 2}, ""}};
    for (const auto &row : rows) {
        std::string answers;
        for (const RedisWritten &written : share_out(row.count, row.last, row.refused)) {
            answers += (written.is_refused ? "-" : "") + std::to_string(written.number) + " ";
        }
        EXPECT_EQ(answers, row.answers) << row.count << " " << row.last;
    }
}

} // namespace
} // namespace vvl::mom
