#include <utility>

#include "Platform/Linux/CarriedEnds.h"
#include "Platform/Linux/Steering/SteeredSession.h"

namespace platform::steering {

namespace {

class SteeredFlow final : public NEAppProxyTCPFlow::Implementation {
public:
    explicit SteeredFlow(std::shared_ptr<SteeredSession> steered) : session(std::move(steered)) {}

    void open(NEAppProxyTCPFlow::ErrorCompletion completion) override {
        session->open(std::move(completion));
    }
    void read(NEAppProxyTCPFlow::ReadCompletion completion) override {
        session->read(std::move(completion));
    }
    void write(Data, NEAppProxyTCPFlow::ErrorCompletion completion) override {
        session->write(std::move(completion));
    }
    void closeRead(std::optional<NSError> error) override { session->closeRead(error); }
    void closeWrite(std::optional<NSError> error) override { session->closeWrite(error); }
    void letGo() override {
        session->closeRead(std::nullopt);
        session->closeWrite(std::nullopt);
    }

private:
    const std::shared_ptr<SteeredSession> session;
};

class SteeredConnection final : public NWConnection::Implementation {
public:
    explicit SteeredConnection(std::shared_ptr<SteeredSession> steered)
        : session(std::move(steered)) {}

    void setStateHandler(StateHandler handler) override {
        session->setStateHandler(std::move(handler));
    }
    // Every queue that the core gives is a concurrent one, which the session's loop serves.
    void start(DispatchQueue) override { session->start(); }
    void cancel() override { session->cancel(); }
    void holdBack() override { session->holdBack(); }
    void send(Data, NWConnection::SendCompletion completion) override {
        session->send(std::move(completion));
    }
    void receive(std::size_t, std::size_t, NWConnection::ReceiveCompletion completion) override {
        session->receive(std::move(completion));
    }
    void letGo() override {
        session->setStateHandler(nullptr);
        session->cancel();
    }

private:
    const std::shared_ptr<SteeredSession> session;
};

}  // namespace

std::shared_ptr<NEAppProxyTCPFlow::Implementation> flowOf(std::shared_ptr<SteeredSession> session) {
    return std::make_shared<SteeredFlow>(std::move(session));
}

std::shared_ptr<NWConnection::Implementation> connectionOf(
    std::shared_ptr<SteeredSession> session) {
    return std::make_shared<SteeredConnection>(std::move(session));
}

}  // namespace platform::steering
