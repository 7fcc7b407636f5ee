#include "Platform/Linux/Recording/RecordedSystem.h"

#include <array>
#include <cstring>
#include <utility>

#include "Platform/Common/JSON.h"
#include "Platform/Linux/Attribution/ProcessTable.h"

namespace platform::recording {

namespace {

constexpr std::size_t lengthOfToken = 32;
constexpr std::size_t wordOfPid = 5;
constexpr int mostAncestorsTold = 16;

template <class Number>
void addNumberOrNone(recorded::Fields& fields, const std::optional<Number>& number) {
    if (number)
        fields.number(*number);
    else
        fields.none();
}

std::string documentText(const JSONObject& object) {
    JSONWriter writer;
    writer.value(object);
    return writer.finish().value_or("");
}

// The core looks for bundles among the folders of a path that are named like one.
void askForBundles(std::string_view path) {
    constexpr std::array<std::string_view, 3> suffixes{".app", ".xpc", ".appex"};
    for (std::size_t end = path.find('/', 1); end != std::string_view::npos;
         end = path.find('/', end + 1)) {
        const auto folder = path.substr(0, end);
        for (const auto suffix : suffixes)
            if (folder.ends_with(suffix)) static_cast<void>(NSBundle::bundleWithPath(folder));
    }
}

}  // namespace

void noteFile(std::string_view path, const std::optional<Data>& contents) {
    auto* call = Call::current();
    if (!call) return;
    auto& fields = call->asked("file").path(path);
    if (contents)
        fields.document(contents->bytes().value_or(""));
    else
        fields.none();
}

void noteParent(std::int32_t pid, std::optional<std::int32_t> parent) {
    if (auto* call = Call::current()) addNumberOrNone(call->asked("parent").number(pid), parent);
}

void notePath(std::int32_t pid, std::optional<std::string_view> path) {
    auto* call = Call::current();
    if (!call) return;
    auto& fields = call->asked("executable").number(pid);
    if (path)
        fields.path(*path);
    else
        fields.none();
}

void noteBundle(std::string_view path, const std::optional<NSBundle>& bundle) {
    auto* call = Call::current();
    if (!call) return;
    auto& fields = call->asked("bundle").path(path).number(int{bundle.has_value()});
    if (bundle && bundle->bundleIdentifier())
        fields.name(*bundle->bundleIdentifier());
    else
        fields.none();
}

void noteConfiguration(const NEVPNProtocol* configuration) {
    auto* call = Call::current();
    if (!call) return;
    const auto* protocol = dynamic_cast<const NETunnelProviderProtocol*>(configuration);
    auto& fields = call->asked("configuration");
    if (protocol && protocol->providerConfiguration())
        fields.document(documentText(*protocol->providerConfiguration()));
    else
        fields.none();
}

void noteRulesChanging(bool areChanging) {
    if (auto* call = Call::current())
        call->asked("rulesChanging").number(Recorder::nextNumber()).number(int{areChanging});
}

void noteTunnelGuard(bool isWanted, bool isVpnConnected) {
    if (auto* call = Call::current())
        call->asked("tunnelGuard").number(int{isWanted}).number(int{isVpnConnected});
}

Completion<std::optional<NSError>> followedSettings(std::string_view name, std::size_t kind,
                                                    Completion<std::optional<NSError>> completion) {
    if (auto* call = Call::current()) call->asked(name).number(Recorder::nextNumber()).number(kind);
    return [name, completion = std::move(completion)](std::optional<NSError> error) mutable {
        Call call(Call::Kind::ofState, name);
        addError(call.with(), error);
        completion(std::move(error));
    };
}

NETunnelProviderManager::LoadCompletion followedLoad(
    NETunnelProviderManager::LoadCompletion completion) {
    if (auto* call = Call::current()) call->asked("tunnels");
    return [completion = std::move(completion)](
               std::optional<std::vector<NETunnelProviderManager>> managers,
               std::optional<NSError> error) mutable {
        Call call(Call::Kind::ofState, "tunnels");
        call.with().number(int{managers.has_value()});
        for (const auto& manager : managers.value_or(std::vector<NETunnelProviderManager>{})) {
            const auto* protocol = dynamic_cast<const NETunnelProviderProtocol*>(
                manager.protocolConfiguration().get());
            if (protocol && protocol->providerBundleIdentifier())
                call.with().name(*protocol->providerBundleIdentifier());
        }
        completion(std::move(managers), std::move(error));
    };
}

DispatchQueue::Work followedWork(double seconds, DispatchQueue::Work work) {
    auto* call = Call::current();
    if (!call) return work;
    const auto origin = call->number();
    const int index = call->nextWork();
    call->asked("later").number(index).number(static_cast<std::int64_t>(seconds * 1000));
    return [origin, index, work = std::move(work)]() mutable {
        Call later(Call::Kind::ofFlow, "work");
        if (later) later.with().number(origin).number(index);
        work();
    };
}

void addInterfaces(recorded::Fields& fields, const NWPath& path) {
    for (const auto& interface : path.availableInterfaces)
        fields.name(interface.name()).number(static_cast<int>(interface.type()));
}

// The questions note themselves.
void describeOwner(Call&, const Data& auditToken) {
    const auto bytes = auditToken.bytes().value_or("");
    if (bytes.size() != lengthOfToken) return;
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + wordOfPid * sizeof word, sizeof word);
    auto pid = static_cast<std::int32_t>(word);
    for (int count = 0; count < mostAncestorsTold && pid > 1; ++count) {
        const auto process = ProcessTable::shared().recall(pid);
        if (!process) break;
        notePath(pid, process->shownPath);
        noteParent(pid, process->shownParentPid);
        askForBundles(process->shownPath);
        pid = process->shownParentPid;
    }
}

}  // namespace platform::recording
