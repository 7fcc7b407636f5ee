// Notes for a recording what the core is told of the system: files, processes, bundles, settings, the
// network. Each does nothing where the calling thread's call is not written down. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Dispatch.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/Recording/Recorder.h"
#include "Platform/NETunnelProvider.h"
#include "Platform/Network.h"

namespace platform::recording {

void noteFile(std::string_view path, const std::optional<Data>& contents);
void noteParent(std::int32_t pid, std::optional<std::int32_t> parent);
void notePath(std::int32_t pid, std::optional<std::string_view> path);
// The outer value: whether it is a bundle; the inner one its identifier.
void noteBundle(std::string_view path, const std::optional<NSBundle>& bundle);
void noteConfiguration(const NEVPNProtocol* configuration);
void noteRulesChanging(bool areChanging);
void noteTunnelGuard(bool isWanted, bool isVpnConnected);

// What the core is asked when this comes; and what it asked, in the order of asking. Of settings, `kind` tells
// apart those that have different effects.
Completion<std::optional<NSError>> followedSettings(std::string_view name, std::size_t kind,
                                                    Completion<std::optional<NSError>> completion);
NETunnelProviderManager::LoadCompletion followedLoad(
    NETunnelProviderManager::LoadCompletion completion);
DispatchQueue::Work followedWork(double seconds, DispatchQueue::Work work);
void addInterfaces(recorded::Fields& fields, const NWPath& path);

// All that the core may ask about a process and those above it.
void describeOwner(Call& call, const Data& auditToken);

}  // namespace platform::recording
