// Names the extension's provider classes to the platform, which builds one object of each, and the way to
// ask them about a flow.

#include <memory>

#include "Extension/FlowExplanation.h"
#include "Extension/FlowKillFilterProvider.h"
#include "Extension/TransparentProxyProvider.h"
#include "Platform/NEProvider.h"

namespace platform {

const ProviderClasses registeredProviders{
    []() -> std::shared_ptr<NETransparentProxyProvider> {
        return std::make_shared<vantry::TransparentProxyProvider>();
    },
    []() -> std::shared_ptr<NEFilterDataProvider> {
        return std::make_shared<vantry::FlowKillFilterProvider>();
    },
    &vantry::FlowExplanation::explain,
};

}  // namespace platform
