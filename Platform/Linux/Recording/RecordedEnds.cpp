#include "Platform/Linux/Recording/RecordedEnds.h"

#include <utility>

#include "Platform/Linux/Recording/Recorder.h"

namespace platform::recording {

namespace {

using ErrorCompletion = Completion<std::optional<NSError>>;

recorded::Fields* noted(std::string_view name, std::uint64_t number) {
    auto* call = Call::current();
    return call ? &call->asked(name).number(number) : nullptr;
}

void addLength(recorded::Fields& fields, const std::optional<Data>& data) {
    if (data)
        fields.number(data->length());
    else
        fields.none();
}

ErrorCompletion noting(const char* name, std::uint64_t number, ErrorCompletion completion) {
    return
        [name, number, completion = std::move(completion)](std::optional<NSError> error) mutable {
            Call call(Call::Kind::ofFlow, name);
            if (call) addError(call.with().number(number), error);
            completion(std::move(error));
        };
}

class RecordedFlow final : public NEAppProxyTCPFlow::Implementation {
public:
    RecordedFlow(std::shared_ptr<NEAppProxyTCPFlow> behind, std::uint64_t flowNumber)
        : flow(std::move(behind)), end(flow->platformSide()), number(flowNumber) {}

    void open(NEAppProxyTCPFlow::ErrorCompletion completion) override {
        noted("open", number);
        end->open(noting("opened", number, std::move(completion)));
    }
    void read(NEAppProxyTCPFlow::ReadCompletion completion) override {
        noted("read", number);
        end->read([number = number, completion = std::move(completion)](
                      std::optional<Data> data, std::optional<NSError> error) mutable {
            Call call(Call::Kind::ofFlow, "flowRead");
            if (call) {
                addLength(call.with().number(number), data);
                addError(call.with(), error);
            }
            completion(std::move(data), std::move(error));
        });
    }
    void write(Data data, NEAppProxyTCPFlow::ErrorCompletion completion) override {
        if (auto* fields = noted("write", number)) fields->number(data.length());
        end->write(std::move(data), noting("flowWritten", number, std::move(completion)));
    }
    void closeRead(std::optional<NSError> error) override {
        if (auto* fields = noted("closeRead", number)) addError(*fields, error);
        end->closeRead(std::move(error));
    }
    void closeWrite(std::optional<NSError> error) override {
        if (auto* fields = noted("closeWrite", number)) addError(*fields, error);
        end->closeWrite(std::move(error));
    }
    // The flow behind goes with this.
    void letGo() override {}

private:
    const std::shared_ptr<NEAppProxyTCPFlow> flow;
    const std::shared_ptr<Implementation> end;
    const std::uint64_t number;
};

class RecordedConnection final : public NWConnection::Implementation {
public:
    RecordedConnection(std::shared_ptr<Implementation> behind, std::uint64_t flowNumber)
        : end(std::move(behind)), number(flowNumber) {}

    void setStateHandler(StateHandler handler) override {
        if (!handler) return end->setStateHandler(nullptr);
        end->setStateHandler([number = number, handler = std::move(handler)](const State& state) {
            Call call(Call::Kind::ofFlow, "state");
            if (call)
                addError(call.with().number(number).number(static_cast<int>(state.kind)),
                         state.error);
            handler(state);
        });
    }
    void start(DispatchQueue queue) override {
        noted("start", number);
        end->start(queue);
    }
    void cancel() override {
        noted("cancel", number);
        end->cancel();
    }
    void holdBack() override {
        noted("holdBack", number);
        end->holdBack();
    }
    void send(Data content, NWConnection::SendCompletion completion) override {
        if (auto* fields = noted("send", number)) fields->number(content.length());
        end->send(std::move(content), noting("sent", number, std::move(completion)));
    }
    void receive(std::size_t minimum, std::size_t maximum,
                 NWConnection::ReceiveCompletion completion) override {
        noted("receive", number);
        end->receive(minimum, maximum,
                     [number = number, completion = std::move(completion)](
                         std::optional<Data> data, NWConnection::ContentContext context,
                         bool isComplete, std::optional<NSError> error) mutable {
                         Call call(Call::Kind::ofFlow, "received");
                         if (call) {
                             addLength(call.with().number(number), data);
                             addError(call.with().number(int{isComplete}), error);
                         }
                         completion(std::move(data), context, isComplete, std::move(error));
                     });
    }
    void letGo() override { end->letGo(); }

private:
    using State = NWConnection::State;

    const std::shared_ptr<Implementation> end;
    const std::uint64_t number;
};

}  // namespace

std::shared_ptr<NEAppProxyTCPFlow> followed(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                            std::uint64_t number) {
    auto metaData = flow->metaData();
    auto remote = flow->remoteEndpoint();
    return std::make_shared<NEAppProxyTCPFlow>(
        std::move(metaData), std::move(remote),
        std::make_shared<RecordedFlow>(std::move(flow), number));
}

std::shared_ptr<NWConnection::Implementation> followed(
    std::shared_ptr<NWConnection::Implementation> connection, const std::string& host,
    std::uint16_t port, const NWParameters& parameters) {
    auto* call = Call::current();
    if (!call) return connection;
    auto& fields = call->asked("connect").number(call->number()).host(host).number(port);
    if (parameters.requiredInterface)
        fields.name(parameters.requiredInterface->name());
    else
        fields.none();
    return std::make_shared<RecordedConnection>(std::move(connection), call->number());
}

}  // namespace platform::recording
