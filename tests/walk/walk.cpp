// vvlan_walk SEED EVENTS: walks the module through so many random events and
// compares it with the model after each. The first difference ends the walk
// with the seed, the number of the event, the events that led there and the
// lines that differ; the same seed finds it again. Ends with lines
// "bar NAME VALUE" for machines. Exit code: 0 no difference, 1 one was found,
// 2 the walk could not be made.
#include "platform/base/log.h"
#include "tests/walk/events.h"
#include "tests/walk/model.h"
#include "tests/walk/observed.h"

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <set>
#include <sstream>

namespace vvl::walk
{
namespace
{

constexpr size_t shown_event_count = 20;

PortMap port_map()
{
    PortMap map;
    for (const host::PortId &port : known_ports()) {
        map[port.ifx] = port.phyid;
    }
    return map;
}

std::multiset<std::string> lines_of(const std::string &text)
{
    std::multiset<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    return lines;
}

// The lines of one text that the other lacks.
void show_surplus(const char *who, const std::string &text, const std::string &other)
{
    const auto lines = lines_of(text);
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
    explicit Walk(uint64_t seed) : seed_(seed), source_(seed), model_(port_map()), observed_(known_ports()) {}

    // False where the walk cannot go on: a difference, or a failed event.
    bool step();
    bool is_different() const { return different_; }
    uint64_t event_count() const { return event_count_; }
    void show_way() const; // the seed and the last events

  private:
    void show_difference() const;

    const uint64_t seed_;
    EventSource source_;
    Model model_;
    Observed observed_;
    Page expected_;
    Page seen_;
    std::deque<Event> last_events_;
    uint64_t event_count_ = 0;
    bool different_ = false;
};

bool Walk::step()
{
    const Event event = source_.next(model_);
    event_count_++;
    last_events_.push_back(event);
    if (last_events_.size() > shown_event_count) {
        last_events_.pop_front();
    }
    if (!apply(event, model_) || !apply(event, observed_)) {
        return false;
    }
    if (!event.settles) {
        return true;
    }
    expected_.clear();
    seen_.clear();
    model_.print(expected_);
    observed_.print(seen_);
    different_ = expected_.text() != seen_.text();
    if (different_) {
        show_difference();
    }
    return !different_;
}

void Walk::show_way() const
{
    printf("seed %llu, event %llu; last events:\n", static_cast<unsigned long long>(seed_),
           static_cast<unsigned long long>(event_count_));
    uint64_t number = event_count_ - last_events_.size();
    for (const Event &event : last_events_) {
        printf("  %llu %s\n", static_cast<unsigned long long>(++number), to_text(event).c_str());
    }
}

void Walk::show_difference() const
{
    printf("difference: ");
    show_way();
    printf("lines that differ:\n");
    show_surplus("expected:", expected_.text(), seen_.text());
    show_surplus("seen:    ", seen_.text(), expected_.text());
    if (lines_of(expected_.text()) == lines_of(seen_.text())) {
        printf("  the same lines in another order\nexpected:%s\nseen:%s\n", expected_.text().c_str(),
               seen_.text().c_str());
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
    printf("walk: seed %llu, %llu events\n", static_cast<unsigned long long>(seed),
           static_cast<unsigned long long>(events));
    // What the parts refuse is logged, and much is refused here.
    set_log_sink([](LogLevel, const std::string &) {});
    Walk walk(seed);
    running_walk = &walk;
    bool goes_on = atexit(tell_of_sudden_end) == 0;
    while (goes_on && walk.event_count() < events) {
        goes_on = walk.step();
    }
    running_walk = nullptr;
    printf("bar walk.events %llu\nbar walk.differences %d\n", static_cast<unsigned long long>(walk.event_count()),
           walk.is_different());
    if (walk.is_different()) {
        return 1;
    }
    return goes_on ? 0 : 2;
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
