#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/Linux/SystemError.h"
#include "Platform/NEAppProxyFlow.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform {
namespace {

using Error = std::optional<NSError>;

struct Read {
    std::optional<Data> data;
    Error error;
};

const NSError peerReset{NEAppProxyErrorDomain, NEAppProxyFlowErrorPeerReset, "reset"};

// A flow whose application is `application`.
class RelayFlow : public ::testing::Test {
protected:
    void connect() {
        auto pair = connectedPair();
        application = std::move(pair.far);
        side->supplySocket(std::move(pair.near));
    }
    void connectAndOpen() {
        connect();
        Awaited<Error> opened;
        flow->openWithLocalEndpoint(nullptr, opened.put());
        ASSERT_EQ(opened.get(), std::nullopt);
    }
    // The errno that the application's reading ends with.
    int endOfApplication() const {
        int error = 0;
        receiveToEnd(application, &error);
        return error;
    }
    static auto into(Awaited<Read>& read) {
        return [put = read.put()](std::optional<Data> data, Error error) mutable {
            put({std::move(data), std::move(error)});
        };
    }
    Read read() {
        Awaited<Read> read;
        flow->readData(into(read));
        return read.get();
    }
    Error write(Data data) {
        Awaited<Error> written;
        flow->writeData(std::move(data), written.put());
        return written.get();
    }

    FileDescriptor application;
    std::shared_ptr<SocketFlow> side = std::make_shared<SocketFlow>();
    std::shared_ptr<NEAppProxyTCPFlow> flow =
        std::make_shared<NEAppProxyTCPFlow>(NEFlowMetaData{}, NWHostEndpoint{}, side);
};

TEST_F(RelayFlow, OpeningCompletesWithTheErrorWhenTheApplicationsSideNeverComes) {
    Awaited<bool> ended;
    side->setEndHandler([put = ended.put()] { put(true); });
    Awaited<Error> opened;
    flow->openWithLocalEndpoint(nullptr, opened.put());
    side->failOpening(systemError(ETIMEDOUT));
    side->failOpening(systemError(ECONNABORTED));  // the first one counts
    EXPECT_EQ(opened.get(), systemError(ETIMEDOUT));
    EXPECT_TRUE(ended.get());
    EXPECT_TRUE(read().error.has_value());
    EXPECT_TRUE(write("x").has_value());
}

TEST_F(RelayFlow, OpensOnceTheApplicationHasComeAndCarriesBytesBothWaysAndItsEnd) {
    Awaited<Error> opened;
    flow->openWithLocalEndpoint(nullptr, opened.put());
    EXPECT_FALSE(opened.isThere(0.05));
    connect();
    EXPECT_EQ(opened.get(), std::nullopt);
    sendAll(application, "request");
    EXPECT_EQ(read().data->bytes(), "request");
    EXPECT_EQ(write("answer"), std::nullopt);
    EXPECT_EQ(receive(application, 6), "answer");
    ::shutdown(application.get(), SHUT_WR);
    for (int i = 0; i < 2; ++i) {  // an end stays an end
        const auto end = read();
        EXPECT_FALSE(end.error.has_value());
        EXPECT_TRUE(!end.data || end.data->isEmpty());
    }
}

TEST_F(RelayFlow, NoCompletionRunsInsideItsCall) {
    connectAndOpen();
    for (const bool isClosed : {false, true}) {
        if (isClosed) flow->closeWriteWithError(std::nullopt);
        sendAll(application, "x");
        Awaited<bool> openWasInside, writeWasInside;
        // On the flow's own loop, where everything could be done at once.
        flow->readData([&](std::optional<Data>, Error) {
            auto isInCall = std::make_shared<bool>(true);
            flow->openWithLocalEndpoint(
                nullptr, [=, put = openWasInside.put()](Error) mutable { put(*isInCall); });
            flow->writeData("y",
                            [=, put = writeWasInside.put()](Error) mutable { put(*isInCall); });
            *isInCall = false;
        });
        EXPECT_FALSE(openWasInside.get() || writeWasInside.get());
    }
}

TEST_F(RelayFlow, ClosingAnswersWhatIsOutstandingWithAnErrorOnce) {
    connectAndOpen();
    Awaited<Read> outstanding;  // takes no second answer
    flow->readData(into(outstanding));
    flow->closeReadWithError(std::nullopt);
    EXPECT_TRUE(outstanding.get().error.has_value());
    EXPECT_TRUE(read().error.has_value());
    // The other direction lives on.
    EXPECT_EQ(write("still"), std::nullopt);
    EXPECT_EQ(receive(application, 5), "still");
    flow->closeWriteWithError(std::nullopt);
    EXPECT_TRUE(write("more").has_value());
    EXPECT_EQ(receiveToEnd(application), "");
}

TEST_F(RelayFlow, ClosingTheWritingAloneShowsAsTheEnd) {
    connectAndOpen();
    flow->closeWriteWithError(std::nullopt);
    EXPECT_EQ(receiveToEnd(application), "");
    sendAll(application, "still");
    EXPECT_EQ(read().data->bytes(), "still");
}

TEST_F(RelayFlow, AnErrorShowsAsAResetAndTheFirstCloseCounts) {
    connectAndOpen();
    flow->closeReadWithError(peerReset);
    flow->closeWriteWithError(std::nullopt);
    EXPECT_EQ(endOfApplication(), ECONNRESET);
}

TEST_F(RelayFlow, AClosedFlowGetsItsEndWhenTheApplicationsSideComesLater) {
    Awaited<Error> opened;
    flow->openWithLocalEndpoint(nullptr, opened.put());
    flow->closeReadWithError(peerReset);
    flow->closeWriteWithError(peerReset);
    connect();
    EXPECT_TRUE(opened.isThere());
    EXPECT_EQ(endOfApplication(), ECONNRESET);
}

TEST_F(RelayFlow, LettingGoOfAFlowThatWasNeverClosedEndsItInOrder) {
    connectAndOpen();
    ASSERT_EQ(write("last words"), std::nullopt);
    flow = nullptr;
    int error = 0;
    EXPECT_EQ(receiveToEnd(application, &error), "last words");
    EXPECT_EQ(error, 0);
}

TEST_F(RelayFlow, TheEndIsReportedWhenTheSocketIsClosedForGood) {
    Awaited<bool> ended;
    side->setEndHandler([put = ended.put()] { put(true); });
    connectAndOpen();
    flow->closeReadWithError(std::nullopt);
    flow->closeWriteWithError(std::nullopt);
    EXPECT_FALSE(ended.isThere(0.1));  // it waits a while for the application to end too
    application = FileDescriptor();
    EXPECT_TRUE(ended.isThere());
}

TEST_F(RelayFlow, OperationsOfSeveralThreadsAgreeWithTheArrivalOfTheSocket) {
    for (int round = 0; round < 300; ++round) {
        side = std::make_shared<SocketFlow>();
        flow = std::make_shared<NEAppProxyTCPFlow>(NEFlowMetaData{}, NWHostEndpoint{}, side);
        auto pair = connectedPair();
        Awaited<Error> opened;
        std::thread opening([&] { flow->openWithLocalEndpoint(nullptr, opened.put()); });
        std::thread closing([&] {
            flow->closeReadWithError(std::nullopt);
            flow->closeWriteWithError(std::nullopt);
        });
        side->supplySocket(std::move(pair.near));
        opening.join();
        closing.join();
        EXPECT_EQ(opened.get(), std::nullopt);
        EXPECT_EQ(receiveToEnd(pair.far), "");
    }
}

}  // namespace
}  // namespace platform
