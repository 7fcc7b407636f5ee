// Sets and tables keyed by bundle identifier, and the one way in which an identifier matches a set.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Common/StringHash.h"
#include "Platform/Common/Text.h"

namespace vantry {

using BundleIdSet = platform::StringSet;
// A set that several hold and no one changes; never null.
using SharedBundleIds = std::shared_ptr<const BundleIdSet>;
// From a bundle identifier, or the parent prefix of one, to its decision word.
using RuleTable = platform::StringMap<std::string>;

inline SharedBundleIds share(BundleIdSet members) {
    return std::make_shared<const BundleIdSet>(std::move(members));
}

// True if `bundleId` is a member of `members` or begins with a member followed by a dot: "a.b" covers
// "a.b.c", not "a.bc". One lookup per dot, whatever the size of the set.
inline bool covers(const BundleIdSet& members, std::string_view bundleId) {
    return platform::anyDottedPrefix(
        bundleId, [&](std::string_view prefix) { return members.contains(prefix); });
}

// The members of `left` that `right` lacks.
inline BundleIdSet difference(const BundleIdSet& left, const BundleIdSet& right) {
    BundleIdSet only;
    for (const auto& member : left)
        if (!right.contains(member)) only.insert(member);
    return only;
}

}  // namespace vantry
