// What a recording adds to a declined flow, which the proxy and the filter are asked about: idle, and with all that
// the daemon does for the tool that fetches it.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/CarriedEnds.h"
#include "Platform/Linux/Recording/RecordQuestions.h"
#include "Platform/Linux/Recording/RecordedProviders.h"

namespace {

using namespace platform;

class DecliningProxy final : public NETransparentProxyProvider {
public:
    void startProxy(std::optional<JSONObject>, ErrorCompletion) override {}
    void stopProxy(NEProviderStopReason, Completion<>) override {}
    bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>&) override { return false; }
    void handleAppMessage(Data, Completion<std::optional<Data>>) override {}
    void sleep(Completion<>) override {}
    void wake() override {}
};

class AllowingFilter final : public NEFilterDataProvider {
public:
    void startFilter(ErrorCompletion) override {}
    void stopFilter(NEProviderStopReason, Completion<>) override {}
    NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow&) override {
        return NEFilterNewFlowVerdict::allowVerdict();
    }
    NEFilterDataVerdict handleOutboundData(const NEFilterFlow&, std::int64_t,
                                           const Data&) override {
        return NEFilterDataVerdict::allowVerdict();
    }
};

// Of a flow that is never opened.
class NoEnd final : public NEAppProxyTCPFlow::Implementation {
public:
    void open(NEAppProxyTCPFlow::ErrorCompletion) override {}
    void read(NEAppProxyTCPFlow::ReadCompletion) override {}
    void write(Data, NEAppProxyTCPFlow::ErrorCompletion) override {}
    void closeRead(std::optional<NSError>) override {}
    void closeWrite(std::optional<NSError>) override {}
    void letGo() override {}
};

enum class Mode : int { bare, idle, verbatim, withoutNames };

void declinedFlow(benchmark::State& state) {
    constexpr int flowsOfFetch = 1000;
    const auto mode = static_cast<Mode>(state.range(0));
    std::shared_ptr<NETransparentProxyProvider> proxy = std::make_shared<DecliningProxy>();
    std::shared_ptr<NEFilterDataProvider> filter = std::make_shared<AllowingFilter>();
    if (mode != Mode::bare) {
        proxy = recording::followed(proxy);
        filter = recording::followed(filter);
    }
    const bool isFetching = mode >= Mode::verbatim && state.thread_index() == 0;
    recording::RecordQuestions questions;
    JSONValue number = 0;
    if (isFetching)
        number =
            questions.answer({{"do", "start"}, {"verbatim", mode == Mode::verbatim}})["number"];
    const Data token(std::string(32, '\7'));
    const NWHostEndpoint remote{"198.51.100.2", "7009"};
    const auto end = std::make_shared<NoEnd>();
    int count = 0;
    for ([[maybe_unused]] const auto& round : state) {
        const NEFlowMetaData metaData{"com.example.courier", token};
        const auto flow = std::make_shared<NEAppProxyTCPFlow>(metaData, remote, end);
        benchmark::DoNotOptimize(proxy->handleNewFlow(flow));
        benchmark::DoNotOptimize(filter->handleNewFlow(NEFilterSocketFlow(token, 1, remote)));
        if (!isFetching || ++count % flowsOfFetch != 0) continue;
        JSONWriter writer;
        writer.value(questions.answer({{"do", "fetch"}, {"number", number}}));
        benchmark::DoNotOptimize(writer.finish());
    }
    if (isFetching) questions.answer({{"do", "stop"}, {"number", number}});
    constexpr const char* names[] = {"bare", "idle", "recorded verbatim", "recorded without names"};
    state.SetLabel(names[state.range(0)]);
}
BENCHMARK(declinedFlow)->DenseRange(0, 3)->ThreadRange(1, 2)->MeasureProcessCPUTime();

}  // namespace
