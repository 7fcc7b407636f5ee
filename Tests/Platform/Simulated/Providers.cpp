#include "Tests/Platform/Simulated/Providers.h"

#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

std::shared_ptr<ScriptedProxy> ScriptedProxy::present() {
    return std::static_pointer_cast<ScriptedProxy>(machine().providers.proxy());
}

std::shared_ptr<ScriptedFilter> ScriptedFilter::present() {
    return std::static_pointer_cast<ScriptedFilter>(machine().providers.filter());
}

}  // namespace simulated

const ProviderClasses registeredProviders{[]() -> std::shared_ptr<NETransparentProxyProvider> {
                                              return std::make_shared<simulated::ScriptedProxy>();
                                          },
                                          []() -> std::shared_ptr<NEFilterDataProvider> {
                                              return std::make_shared<simulated::ScriptedFilter>();
                                          }};

}  // namespace platform
