#include "Platform/Linux/Relay/StreamSocket.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Tests/Platform/Linux/Sockets.h"

namespace platform {
namespace {

// One end of a relay, which writes what it reads to the other and notes its name for each block.
struct RelayEnd final : StreamSocket::Owner {
    void readOn() { socket->read(1, block); }
    void readDone(Data data, bool, int) override {
        *blocks += name;
        bytes += data.length();
        other->socket->write(std::move(data));
    }
    void writeDone(int) override {
        if (other->bytes < other->expected)
            other->readOn();
        else if (other->name == 'A')
            isOver->put()(true);
    }

    char name = 0;
    std::size_t block = 0;
    std::size_t expected = 0;
    std::size_t bytes = 0;
    std::string* blocks = nullptr;
    RelayEnd* other = nullptr;
    Awaited<bool>* isOver = nullptr;
    std::shared_ptr<StreamSocket> socket;
};

// A direction whose reader takes a pipe in many small steps is not held up at each of them by the
// other direction, and does not hold up the other one for longer than a pipe.
TEST(StreamSocket, DirectionsTakeTurnsInReadingAndNotInHandingOn) {
    constexpr std::size_t prefilled = 60'000;
    EventLoop& loop = *EventLoopPool::shared().loops().front();
    std::string blocks;
    Awaited<bool> isOver, isClosed;
    RelayEnd a, b;
    a.name = 'A', a.block = 16 * 1024, a.other = &b;
    b.name = 'B', b.block = 4 * 1024, b.other = &a;
    std::vector<FileDescriptor> farEnds;
    for (RelayEnd* const end : {&a, &b}) {
        auto pair = connectedPair();
        sendAll(pair.far, randomBytes(prefilled, 1));
        end->expected = prefilled, end->blocks = &blocks, end->isOver = &isOver;
        end->socket = std::make_shared<StreamSocket>(loop, std::move(pair.near), *end);
        farEnds.push_back(std::move(pair.far));
    }
    loop.post([&] {
        a.readOn();
        b.readOn();
    });
    EXPECT_TRUE(isOver.isThere());
    loop.post([&, put = isClosed.put()] {
        a.socket->reset();
        b.socket->reset();
        put(true);
    });
    isClosed.get();
    EXPECT_TRUE(blocks.starts_with("ABAAAB")) << blocks;
}

}  // namespace
}  // namespace platform
