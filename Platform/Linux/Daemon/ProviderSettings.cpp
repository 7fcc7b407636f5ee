#include <cerrno>
#include <utility>

#include "Platform/Common/Mutex.h"
#include "Platform/Dispatch.h"
#include "Platform/Linux/Daemon/RunningInterception.h"
#include "Platform/Linux/Recording/RecordedSystem.h"
#include "Platform/Linux/SystemError.h"
#include "Platform/NEProvider.h"

namespace platform {

namespace interception {

namespace {
Mutex runningLock;
std::shared_ptr<Interception> running GUARDED_BY(runningLock);
}  // namespace

std::shared_ptr<Interception> RunningInterception::get() {
    const MutexGuard guard(runningLock);
    return running;
}

void RunningInterception::set(std::shared_ptr<Interception> interception) {
    const MutexGuard guard(runningLock);
    running.swap(interception);
}

}  // namespace interception

namespace {

void refuse(Completion<std::optional<NSError>> completion) {
    DispatchQueue::global(QualityOfService::defaultQuality)
        .async(
            [completion = std::move(completion)]() mutable { completion(systemError(ENOTCONN)); });
}

}  // namespace

void NETransparentProxyProvider::setTunnelNetworkSettings(
    NETransparentProxyNetworkSettings settings, ErrorCompletion completion) {
    const NETransparentProxyNetworkSettings wanted = std::move(settings);
    completion = recording::followedSettings("proxySettings", wanted.includedNetworkRules().size(),
                                             std::move(completion));
    if (const auto running = interception::RunningInterception::get())
        running->setProxyRules(wanted.includedNetworkRules(), std::move(completion));
    else
        refuse(std::move(completion));
}

void NETransparentProxyProvider::setRulesChanging(bool areChanging) {
    recording::noteRulesChanging(areChanging);
    if (const auto running = interception::RunningInterception::get())
        running->setRulesChanging(areChanging);
}

void NEFilterDataProvider::applySettings(NEFilterSettings settings, ErrorCompletion completion) {
    completion = recording::followedSettings(
        "filterSettings", static_cast<std::size_t>(settings.defaultAction), std::move(completion));
    if (const auto running = interception::RunningInterception::get())
        running->setFilterAction(settings.defaultAction, std::move(completion));
    else
        refuse(std::move(completion));
}

}  // namespace platform
