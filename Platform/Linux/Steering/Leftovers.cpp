#include "Platform/Linux/Steering/Leftovers.h"

#include "Platform/Linux/Rules/ConnectionEntries.h"
#include "Platform/Linux/Steering/EarlierConnections.h"
#include "Platform/Linux/Steering/IpsecPolicies.h"
#include "Platform/Linux/Steering/SteeringRoutes.h"
#include "Platform/Linux/Steering/SteeringTable.h"
#include "Platform/Linux/Steering/StrictFilter.h"

namespace platform::steering {

Result<> removeLeftovers() {
    // Nothing new is put in force, so it doesn't matter which byte of the marks was ours.
    const SteeringMarks marks{MarkPlace(0)};
    const auto routes = SteeringRoutes::open(marks);
    if (!routes) return routes.error();
    const auto entries = interception::ConnectionEntries::open();
    if (!entries) return entries.error();
    {
        // Takes over what was changed, and takes it back.
        const StrictFilter filter;
    }
    endEarlierConnections((*routes)->marksInRules(), **entries);
    SteeringTable(marks).remove();
    auto routed = (*routes)->update({}, {});
    IpsecPolicies ipsec(marks);
    if (auto looked = ipsec.look(); !looked) return looked;
    if (auto removed = ipsec.exempt({}); !removed) return removed;
    return routed;
}

}  // namespace platform::steering
