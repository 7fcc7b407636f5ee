#include "Platform/Linux/Relay/StreamSocket.h"

#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>

#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/Relay/RelayMemory.h"
#include "Platform/Linux/Relay/RelaySocketOptions.h"
#include "Tests/Platform/Linux/Eventually.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform {
namespace {

constexpr std::size_t prefilled = 60'000;

// One end of a relay, which writes what it reads to the other and notes its name for each block.
struct RelayEnd final : StreamSocket::Owner {
    RelayEnd(EventLoop& loop, char endName, std::size_t endBlock, std::string& toNote)
        : name(endName), block(endBlock), blocks(toNote) {
        auto pair = connectedPair();
        sendAll(pair.far, randomBytes(prefilled, 1));
        far = std::move(pair.far);
        socket = std::make_shared<StreamSocket>(loop, std::move(pair.near), *this);
    }
    void readOn() { socket->read(1, block); }
    void readDone(Data data, bool, int) override {
        blocks += name;
        bytes += data.length();
        other->socket->write(std::move(data));
    }
    void writeDone(int) override {
        if (other->bytes < prefilled)
            other->readOn();
        else
            other->isOver.put()(true);
    }

    const char name;
    const std::size_t block;
    std::string& blocks;
    std::size_t bytes = 0;
    RelayEnd* other = nullptr;
    Awaited<bool> isOver;
    FileDescriptor far;
    std::shared_ptr<StreamSocket> socket;
};

// A direction whose reader takes a pipe in many small steps is not held up at each of them by the
// other direction, and does not hold up the other one for longer than a pipe.
TEST(StreamSocket, DirectionsTakeTurnsInReadingAndNotInHandingOn) {
    EventLoop& loop = *EventLoopPool::shared().loops().front();
    std::string blocks;
    RelayEnd a(loop, 'A', 16 * 1024, blocks), b(loop, 'B', 4 * 1024, blocks);
    a.other = &b, b.other = &a;
    loop.post([&] {
        a.readOn();
        b.readOn();
    });
    EXPECT_TRUE(a.isOver.isThere() && b.isOver.isThere());
    Awaited<bool> isClosed;
    loop.post([&] {
        a.socket->reset();
        b.socket->reset();
        isClosed.put()(true);
    });
    isClosed.get();
    EXPECT_TRUE(blocks.starts_with("ABAAAB")) << blocks;
}

// Reads a stream to its end in pieces of a size and keeps them all.
struct KeepingReader final : StreamSocket::Owner {
    explicit KeepingReader(std::size_t pieceSize) : piece(pieceSize) {
        setRelayOptions(pair.near);
        socket = std::make_shared<StreamSocket>(loop, std::move(pair.near), *this);
        loop.post([this] { socket->read(1, piece); });
    }
    ~KeepingReader() override {
        Awaited<bool> isClosed;
        loop.post([this, put = isClosed.put()] {
            socket->reset();
            put(true);
        });
        isClosed.get();
    }
    void readDone(Data data, bool isEnd, int) override {
        length += data.length();
        if (!data.isEmpty()) kept.push_back(std::move(data));
        if (isEnd) return isOver.put()(length);
        socket->read(1, piece);
    }
    void writeDone(int) override {}

    EventLoop& loop = *EventLoopPool::shared().loops().front();
    SocketPair pair = connectedPair();
    std::shared_ptr<StreamSocket> socket;
    const std::size_t piece;
    std::size_t length = 0;
    std::vector<Data> kept;
    Awaited<std::size_t> isOver;
};

// While no one takes the bytes on, each further read takes little.
TEST(StreamSocket, BytesThatNobodyTakesDoNotFillTheMemory) {
    constexpr std::size_t length = RelayMemory::budget + 4'000'000;
    constexpr std::size_t piece = 2 * RelayMemory::smallBlock;
    KeepingReader reader(piece);
    sendAll(reader.pair.far, randomBytes(length, 3));
    ::shutdown(reader.pair.far.get(), SHUT_WR);
    ASSERT_EQ(reader.isOver.get(), length);
    // A reader that is faster than the sender finds little at a time, which does not count.
    std::size_t counted = 0;
    for (const Data& block : reader.kept)
        if (block.length() > RelayMemory::smallBlock) counted += block.length();
    EXPECT_LE(counted, RelayMemory::budget + piece);
}

// The system ends a read at an urgent byte though more is there, and splices nothing past it.
TEST(StreamSocket, UrgentBytesAreReadInTheirPlace) {
    KeepingReader reader(64 * 1024);
    const std::string much = randomBytes(300'000, 4);
    std::size_t sent = 0;
    for (const std::string_view piece : {std::string_view("a"), std::string_view("b"),
                                         std::string_view(much), std::string_view(much)}) {
        sendAll(reader.pair.far, piece);
        ::send(reader.pair.far.get(), "!", 1, MSG_NOSIGNAL | MSG_OOB);
        sent += piece.length() + 1;
    }
    sendAll(reader.pair.far, much);
    ::shutdown(reader.pair.far.get(), SHUT_WR);
    EXPECT_EQ(reader.isOver.get(), sent + much.length());
}

// Hands one read of a stream on to another, whose end may follow.
class Forwarder final : public StreamSocket::Owner {
public:
    explicit Forwarder(bool endsBehindBytes) : endsBehind(endsBehindBytes) {
        loop.post([this] { source->read(1, 1024); });
    }
    ~Forwarder() override {
        Awaited<bool> isClosed;
        loop.post([this, put = isClosed.put()] {
            source->reset();
            target->reset();
            put(true);
        });
        isClosed.get();
    }
    void readDone(Data data, bool, int) override { target->write(std::move(data)); }
    void writeDone(int) override {
        if (endsBehind) target->endWriting();
    }

    SocketPair sourcePair = connectedPair();
    SocketPair targetPair = connectedPair();

private:
    const bool endsBehind;
    EventLoop& loop = *EventLoopPool::shared().loops().front();
    const std::shared_ptr<StreamSocket> source =
        std::make_shared<StreamSocket>(loop, std::move(sourcePair.near), *this);
    const std::shared_ptr<StreamSocket> target =
        std::make_shared<StreamSocket>(loop, std::move(targetPair.near), *this);
};

// Bytes and end in one segment.
void sendLast(const FileDescriptor& socket, std::string_view bytes) {
    ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_MORE);
    ::shutdown(socket.get(), SHUT_WR);
}

unsigned segmentsReceivedBy(const FileDescriptor& socket) {
    tcp_info information{};
    socklen_t length = sizeof information;
    ::getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &information, &length);
    return information.tcpi_segs_in;
}

TEST(StreamSocket, LastBytesAreSentAlongWithTheEndBehindThem) {
    // They are not where a thread is held up meanwhile, or before the first read.
    EXPECT_TRUE(eventually([] {
        const Forwarder forwarder(true);
        const unsigned before = segmentsReceivedBy(forwarder.targetPair.far);
        sendLast(forwarder.sourcePair.far, "last");
        EXPECT_EQ(receiveToEnd(forwarder.targetPair.far), "last");
        return segmentsReceivedBy(forwarder.targetPair.far) == before + 1;
    }));
}

TEST(StreamSocket, LastBytesComeThoughNoEndFollows) {
    const Forwarder forwarder(false);
    sendLast(forwarder.sourcePair.far, "last");
    EXPECT_EQ(receive(forwarder.targetPair.far, 4), "last");
}

}  // namespace
}  // namespace platform
