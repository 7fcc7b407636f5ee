#include "Platform/Linux/Health/Health.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace platform::health {

namespace {

// The items that live. Held while a report asks them, so that none goes meanwhile.
class Register {
public:
    // Never destroyed: items may outlive every other object.
    static Register& shared() {
        static Register& list = *std::make_unique<Register>().release();
        return list;
    }

    void add(const Item& item) {
        const MutexGuard guard(lock);
        const auto place = std::ranges::upper_bound(items, item.place(), {}, &Item::place);
        items.insert(place, &item);
    }
    void remove(const Item& item) {
        const MutexGuard guard(lock);
        std::erase(items, &item);
    }
    JSONArray report() {
        const MutexGuard guard(lock);
        JSONArray list;
        for (const Item* const item : items)
            list.emplace_back(JSONObject{{"key", std::string(item->key())},
                                         {"label", std::string(item->label())},
                                         {"value", item->value()},
                                         {"isProblem", item->isProblem()}});
        return list;
    }

private:
    Mutex lock;
    std::vector<const Item*> items GUARDED_BY(lock);  // by place
};

}  // namespace

Item::Item(Place place, std::string_view key, std::string_view label)
    : place_(place), key_(key), label_(label) {}

void Item::enlist() { Register::shared().add(*this); }
void Item::leave() { Register::shared().remove(*this); }

Counter::Counter(Place place, std::string_view key, std::string_view label)
    : Item(place, key, label) {
    enlist();
}

Gauge::Gauge(Place place, std::string_view key, std::string_view label,
             std::function<std::uint64_t()> reading)
    : Item(place, key, label), read(std::move(reading)) {
    enlist();
}

State::State(Place place, std::string_view key, std::string_view label, std::string initial)
    : Item(place, key, label), present(std::move(initial)) {
    enlist();
}

bool State::set(std::string words) {
    const MutexGuard guard(lock);
    if (present == words) return false;
    present = std::move(words);
    return true;
}

JSONValue State::value() const {
    const MutexGuard guard(lock);
    return present;
}

Problem::Problem(Place place, std::string_view key, std::string_view label)
    : Item(place, key, label) {
    enlist();
}

bool Problem::begin(std::string words) {
    const MutexGuard guard(lock);
    return !std::exchange(detail, std::move(words)).has_value();
}

bool Problem::end() {
    const MutexGuard guard(lock);
    return std::exchange(detail, std::nullopt).has_value();
}

JSONValue Problem::value() const {
    const MutexGuard guard(lock);
    return detail ? JSONValue(*detail) : JSONValue();
}

bool Problem::isProblem() const {
    const MutexGuard guard(lock);
    return detail.has_value();
}

std::string report() {
    JSONWriter writer;
    writer.value(JSONObject{{"health", Register::shared().report()}});
    return writer.finish().value_or("{}");
}

}  // namespace platform::health
