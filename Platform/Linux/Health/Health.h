// How well the platform does its work, in words and numbers for the person who runs the machine. Each
// part registers what it has to tell as items, which count for as long as they live; the host
// application's `status` shows them all. An item may be changed from any thread, also on the way of a
// verdict: a counter costs an atomic addition, the others a short lock.
//
//     health::Counter overdue{health::Place::packets, "overdue", "Verdicts that came too late"};
//     overdue.add(count);
//
//     health::Problem stalled{health::Place::packets, "stalled", "Verdicts are held up"};
//     if (stalled.begin("all workers are busy")) platformLog.error("Verdicts are held up ...");
//     if (stalled.end()) platformLog.info("Verdicts are given in time again");
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Common/JSON.h"
#include "Platform/Common/Mutex.h"

namespace platform::health {

// The order in which items are shown; those of one place in the order of their registration.
enum class Place { attribution, packets, verdicts, steering, network, hostChannel, log };

// What all items have. The texts are literals: `key` is for programs and never changes once released,
// `label` is for people.
class Item {
public:
    Item(const Item&) = delete;
    Item& operator=(const Item&) = delete;
    // Each kind of item leaves the list first of all, before its own fields go.
    virtual ~Item() = default;

    Place place() const { return place_; }
    std::string_view key() const { return key_; }
    std::string_view label() const { return label_; }
    // A number, a text, or null for a problem that is not there.
    virtual JSONValue value() const = 0;
    virtual bool isProblem() const { return false; }

protected:
    Item(Place place, std::string_view key, std::string_view label);
    void enlist();
    void leave();

private:
    const Place place_;
    const std::string_view key_;
    const std::string_view label_;
};

// A number of events, which only grows.
class Counter final : public Item {
public:
    Counter(Place place, std::string_view key, std::string_view label);
    ~Counter() override { leave(); }

    void add(std::uint64_t count = 1) { number.fetch_add(count, std::memory_order_relaxed); }
    std::uint64_t count() const { return number.load(std::memory_order_relaxed); }
    JSONValue value() const override { return count(); }

private:
    std::atomic<std::uint64_t> number{0};
};

// A number that is looked up when it is asked for. `read` may be called on any thread, and takes no lock
// under which items are made or destroyed.
class Gauge final : public Item {
public:
    Gauge(Place place, std::string_view key, std::string_view label,
          std::function<std::uint64_t()> read);
    ~Gauge() override { leave(); }

    JSONValue value() const override { return read(); }

private:
    const std::function<std::uint64_t()> read;
};

// How something is done at present: one of several ways, in words.
class State final : public Item {
public:
    State(Place place, std::string_view key, std::string_view label, std::string initial);
    ~State() override { leave(); }

    // False if it was so already.
    bool set(std::string words);
    JSONValue value() const override;

private:
    mutable Mutex lock;
    std::string present GUARDED_BY(lock);
};

// Something that is wrong for a while. The log is to say once that it begins and once that it is over:
// both operations are true when they change something, and the line stands where they are called.
class Problem final : public Item {
public:
    Problem(Place place, std::string_view key, std::string_view label);
    ~Problem() override { leave(); }

    // `detail`: what it is about this time. It replaces the one before if the problem is there already.
    bool begin(std::string detail);
    bool end();
    JSONValue value() const override;
    bool isProblem() const override;

private:
    mutable Mutex lock;
    std::optional<std::string> detail GUARDED_BY(lock);
};

// All items as they are now, their texts being UTF-8: {"health": [{"key", "label", "value", "isProblem"}, ...]}.
std::string report();

// The request that is answered by a report, byte for byte. It is the platform's own: no document of
// the extension's looks like it.
inline constexpr std::string_view reportRequest = R"({"platform":"health"})";

}  // namespace platform::health
