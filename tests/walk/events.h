// The events of a walk: what can happen to a switch, how often, and how an
// event is carried out on the model and on the watched system alike.
#pragma once

#include "tests/walk/model.h"
#include "tests/walk/observed.h"

#include <functional>
#include <random>

namespace vvl::walk
{

struct Event {
    std::string text;
    std::function<void(Model &)> on_model;
    std::function<void(Observed &)> on_observed;
    bool settles = true; // all deliveries are made, and the states are compared
};

// The engine is the same on every machine; the distributions of the standard
// are not, and are not used.
class Random
{
  public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine_() >> 33) % limit; }
    bool chance(uint32_t in) { return below(in) == 0; }
    template <typename Choices> const auto &pick(const Choices &choices)
    {
        return std::data(choices)[below(static_cast<uint32_t>(std::size(choices)))];
    }

  private:
    std::mt19937_64 engine_;
};

// A source of events that repeats itself for the same seed.
class EventSource
{
  public:
    explicit EventSource(uint64_t seed) : random_(seed) {}

    // The next event that can happen in the model's present state.
    Event next(const Model &model);

  private:
    Event make(const Model &model);

    Random random_;
    bool flooded_ = false;
};

} // namespace vvl::walk
