// vvlan_walk SEED EVENTS: walks the module through so many random events and
// compares it with the model after each. The first difference ends the walk
// with the seed, the number of the event, the events that led there and the
// lines that differ; the same seed finds it again. Ends with lines
// "bar NAME VALUE" for machines. Exit code: 0 no difference, 1 one was found,
// 2 the walk could not be made.
#include "platform/base/log.h"
#include "tests/walk/events.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <sstream>

namespace vvl::walk
{
namespace
{

constexpr size_t shown_event_count = 20;

const std::vector<host::PortId> known_ports = {{1, 257}, {2, 258}, {3, 259}, {4, 260}, {10, 266}};

std::vector<std::string> lines_of(const Page &page)
{
    std::vector<std::string> lines;
    std::istringstream stream(page.text());
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The lines of one page that the other lacks.
void show_surplus(const char *who, const Page &page, const Page &other)
{
    const auto lines = lines_of(page);
    const auto others = lines_of(other);
    std::vector<std::string> surplus;
    std::set_difference(lines.begin(), lines.end(), others.begin(), others.end(), std::back_inserter(surplus));
    for (const std::string &line : surplus) {
        printf("  %s %s\n", who, line.c_str());
    }
}

class Walk
{
  public:
    explicit Walk(uint64_t seed) : seed_(seed), source_(seed), model_(known_ports), observed_(known_ports) {}

    bool step(); // false after a difference
    uint64_t event_count() const { return event_count_; }
    void show_way() const; // the seed and the last events

  private:
    const uint64_t seed_;
    EventSource source_;
    Model model_;
    Observed observed_;
    std::deque<std::string> last_events_;
    uint64_t event_count_ = 0;
};

bool Walk::step()
{
    const Event event = source_.next(model_);
    event_count_++;
    last_events_.push_back(event.text);
    if (last_events_.size() > shown_event_count) {
        last_events_.pop_front();
    }
    event.on_model(model_);
    event.on_observed(observed_);
    if (!event.settles) {
        return true;
    }
    model_.settle();
    observed_.settle();
    Page expected;
    Page seen;
    model_.print(expected);
    observed_.print(seen);
    if (expected.text() == seen.text()) {
        return true;
    }
    printf("difference: ");
    show_way();
    printf("lines that differ, or the same in another order:\n");
    show_surplus("expected:", expected, seen);
    show_surplus("seen:    ", seen, expected);
    return false;
}

void Walk::show_way() const
{
    printf("seed %" PRIu64 ", event %" PRIu64 "; last events:\n", seed_, event_count_);
    uint64_t number = event_count_ - last_events_.size();
    for (const std::string &event : last_events_) {
        printf("  %" PRIu64 " %s\n", ++number, event.c_str());
    }
}

// The module ends its process where it cannot go on, which it never has to
// here; what led there is all that there is to go by.
const Walk *running_walk = nullptr;

void tell_of_sudden_end()
{
    if (running_walk != nullptr) {
        printf("the module ended the process: ");
        running_walk->show_way();
    }
}

bool parse_number(const char *text, uint64_t &number)
{
    char *end = nullptr;
    number = strtoull(text, &end, 10);
    return *text >= '0' && *text <= '9' && *end == '\0';
}

int run(uint64_t seed, uint64_t events)
{
    printf("walk: seed %" PRIu64 ", %" PRIu64 " events\n", seed, events);
    // What the parts refuse is logged, and much is refused here.
    set_log_sink([](LogLevel, const std::string &) {});
    Walk walk(seed);
    running_walk = &walk;
    bool agrees = true;
    atexit(tell_of_sudden_end);
    while (agrees && walk.event_count() < events) {
        agrees = walk.step();
    }
    running_walk = nullptr;
    printf("bar walk.events %" PRIu64 "\nbar walk.differences %d\n", walk.event_count(), agrees ? 0 : 1);
    return agrees ? 0 : 1;
}

} // namespace
} // namespace vvl::walk

int main(int argc, char **argv)
{
    uint64_t seed = 0;
    uint64_t events = 0;
    if (argc != 3 || !vvl::walk::parse_number(argv[1], seed) || !vvl::walk::parse_number(argv[2], events)) {
        fprintf(stderr, "usage: vvlan_walk SEED EVENTS\n");
        return 2;
    }
    return vvl::walk::run(seed, events);
}
