#include <algorithm>
#include <functional>
#include <utility>

#include "Platform/Common/JSON.h"

namespace platform {
namespace {

constexpr std::size_t mostMembersWithoutIndex = 16;

// The places of the index are tried one after another from here; their number is a power of two.
std::size_t firstSlot(std::uint32_t hash, std::size_t slotCount) { return hash & (slotCount - 1); }
std::size_t slotAfter(std::size_t slot, std::size_t slotCount) {
    return (slot + 1) & (slotCount - 1);
}

std::uint32_t hashOf(std::string_view key) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>{}(key));
}

}  // namespace

JSONObject::JSONObject(std::initializer_list<Member> list) {
    for (const auto& [key, value] : list) (*this)[key] = value;
}

std::size_t JSONObject::size() const { return members.size(); }

JSONObject::Members::iterator JSONObject::find(std::string_view key) {
    return members.begin() + static_cast<std::ptrdiff_t>(positionOf(key, hashOf(key)));
}

JSONObject::Members::const_iterator JSONObject::find(std::string_view key) const {
    return members.begin() + static_cast<std::ptrdiff_t>(positionOf(key, hashOf(key)));
}

JSONValue& JSONObject::operator[](std::string key) {
    const auto hash = hashOf(key);
    const auto position = positionOf(key, hash);
    if (position == members.size()) {
        members.emplace_back().first = std::move(key);
        index(hash);
    }
    return members[position].second;
}

bool operator==(const JSONObject& left, const JSONObject& right) {
    return left.size() == right.size() &&
           std::all_of(left.begin(), left.end(), [&](const JSONObject::Member& member) {
               const auto other = right.find(member.first);
               return other != right.end() && other->second == member.second;
           });
}

std::size_t JSONObject::positionOf(std::string_view key, std::uint32_t hash) const {
    if (slots.empty()) {
        const auto found = std::find_if(members.begin(), members.end(),
                                        [&](const Member& member) { return member.first == key; });
        return static_cast<std::size_t>(found - members.begin());
    }
    for (auto slot = firstSlot(hash, slots.size());; slot = slotAfter(slot, slots.size())) {
        const auto [next, slotHash] = slots[slot];
        if (next == 0) return members.size();
        if (slotHash == hash && members[next - 1].first == key) return next - 1;
    }
}

// Enters the last member. The index grows to keep half of its places free.
void JSONObject::index(std::uint32_t hash) {
    if (members.size() <= mostMembersWithoutIndex) return;
    if (members.size() * 2 > slots.size()) growIndex();
    take({static_cast<std::uint32_t>(members.size()), hash});
}

void JSONObject::growIndex() {
    auto before = std::exchange(slots, {});
    slots.resize(std::max(before.size() * 2, mostMembersWithoutIndex * 4));
    for (const auto& slot : before)
        if (slot.next != 0) take(slot);
    if (!before.empty()) return;
    for (std::uint32_t next = 1; next < members.size(); ++next)
        take({next, hashOf(members[next - 1].first)});
}

void JSONObject::take(Slot entry) {
    auto slot = firstSlot(entry.hash, slots.size());
    while (slots[slot].next != 0) slot = slotAfter(slot, slots.size());
    slots[slot] = entry;
}

}  // namespace platform
