// Gigabytes through sessions of the extension, checked byte by byte, between an application and a
// server behind the physical interface: pieces and stalls of any size, both ways at once, and ends
// of both sides close together. RELAY_TEST_MEBIBYTES in the environment says how much altogether.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <latch>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Tests/Platform/Linux/LocalRelay.h"
#include "Tests/Platform/Linux/Sockets.h"
#include "Tests/Platform/Linux/TestNetwork.h"

namespace platform {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint64_t mebibytesByDefault = 96;
#else
constexpr std::uint64_t mebibytesByDefault = 1536;
#endif
constexpr unsigned piecesUpTo = 20;  // as a power of two

std::uint64_t bytesAltogether() {
    const char* const asked = std::getenv("RELAY_TEST_MEBIBYTES");
    return (asked != nullptr ? std::strtoull(asked, nullptr, 10) : mebibytesByDefault) << 20;
}

struct Stream {
    std::uint64_t seed;
    std::uint64_t length;

    // Random bytes that begin elsewhere for each seed and come again after a prime number of them, so
    // that a block that is lost, doubled or exchanged shows wherever it was cut.
    std::string_view at(std::uint64_t position, std::size_t size) const {
        constexpr std::size_t period = 16'777'213;
        static const std::string bytes = [] {
            const auto once = randomBytes(period, 1);
            return once + once.substr(0, std::size_t{1} << piecesUpTo);
        }();
        return std::string_view(bytes).substr((seed * 999'983 + position) % period, size);
    }
};

// Sizes from a byte to the largest, each order of magnitude as likely, and a pause now and then.
std::size_t nextPiece(std::mt19937_64& random) {
    if (random() % 64 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    return 1 + random() % (std::size_t{1} << (random() % (piecesUpTo + 1)));
}

// Until all is sent or the session has ended.
void send(const FileDescriptor& socket, const Stream& stream) {
    std::mt19937_64 random(stream.seed + 1);
    for (std::uint64_t sent = 0; sent < stream.length;) {
        const auto size = std::min<std::uint64_t>(nextPiece(random), stream.length - sent);
        const auto piece = stream.at(sent, size);
        const ssize_t count = ::send(socket.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
        if (count < 0) return;
        sent += static_cast<std::uint64_t>(count);
    }
}

// Receives until the stream ends and gives how much came; `hasAll` hears when all bytes are there or
// the stream has ended.
std::uint64_t receive(const FileDescriptor& socket, const Stream& stream, std::latch& hasAll) {
    std::mt19937_64 random(stream.seed + 2);
    std::vector<char> buffer(std::size_t{1} << piecesUpTo);
    std::uint64_t received = 0;
    for (bool hasSaidSo = false;;) {
        const ssize_t count = ::recv(socket.get(), buffer.data(), nextPiece(random), 0);
        EXPECT_FALSE(count < 0 && errno == EAGAIN) << "nothing came for long";
        const std::string_view bytes(buffer.data(), static_cast<std::size_t>(std::max(count, {})));
        EXPECT_TRUE(bytes == stream.at(received, bytes.size())) << "wrong after " << received;
        received += bytes.size();
        if (!hasSaidSo && (count <= 0 || received >= stream.length)) {
            hasAll.count_down();
            hasSaidSo = true;
        }
        if (count <= 0) return received;
    }
}

// Who ends a session. Of the streams that its end cuts short, what arrives is the beginning.
enum class End { applicationWithAll, application, server, bothAtOnce };

struct Story {
    End end;
    Stream up;
    Stream down;

    bool isAsItShouldBe(std::uint64_t cameUp, std::uint64_t cameDown) const {
        if (cameUp > up.length || cameDown > down.length) return false;
        const bool isUpWhole = cameUp == up.length;
        const bool isDownWhole = cameDown == down.length;
        if (end == End::application) return isUpWhole;
        if (end == End::server) return isDownWhole;
        return end == End::bothAtOnce ? isUpWhole || isDownWhole : isUpWhole && isDownWhole;
    }
};

// Gives how many bytes came altogether.
std::uint64_t play(const Story& story, const FileDescriptor& application,
                   const FileDescriptor& server) {
    std::uint64_t cameUp = 0, cameDown = 0;
    std::latch applicationHasAll(1), serverHasAll(1);
    {
        // Who sees the end of the session gives up its own sending.
        const std::jthread applicationReceives([&] {
            cameDown = receive(application, story.down, applicationHasAll);
            ::shutdown(application.get(), SHUT_RDWR);
        });
        const std::jthread serverReceives([&] {
            cameUp = receive(server, story.up, serverHasAll);
            ::shutdown(server.get(), SHUT_RDWR);
        });
        const std::jthread applicationSends([&] {
            send(application, story.up);
            if (story.end == End::applicationWithAll) applicationHasAll.wait();
            if (story.end != End::server) ::shutdown(application.get(), SHUT_WR);
        });
        send(server, story.down);
        if (story.end == End::server || story.end == End::bothAtOnce)
            ::shutdown(server.get(), SHUT_WR);
    }
    EXPECT_TRUE(story.isAsItShouldBe(cameUp, cameDown))
        << "end " << static_cast<int>(story.end) << ", up " << cameUp << " of " << story.up.length
        << ", down " << cameDown << " of " << story.down.length << ", seed " << story.up.seed;
    return cameUp + cameDown;
}

// One session after the other until `share` bytes have arrived: a long one, then any.
void playMany(const LocalRelay& relay, const FileDescriptor& listener, std::uint64_t lane,
              std::uint64_t share) {
    std::mt19937_64 random(lane);
    const auto anyLength = [&] { return 1 + random() % (1ULL << (10 + random() % 16)); };
    std::uint64_t seed = lane << 32;
    Story story{End::applicationWithAll, {seed += 8, share / 8}, {seed += 8, share / 8}};
    for (std::uint64_t arrived = 0; arrived < share && !::testing::Test::HasFailure();) {
        const auto application = relay.connect();
        const auto server = acceptFrom(listener);
        EXPECT_TRUE(peerAddressOf(server) == "192.0.2.2" || peerAddressOf(server) == "fd02::2");
        const timeval patience{60, 0};
        for (const auto* end : {&application, &server})
            ::setsockopt(end->get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        arrived += play(story, application, server);
        const auto length = anyLength();
        story = {static_cast<End>(random() % 4),
                 {seed += 8, length},
                 {seed += 8, random() % 2 == 0 ? length : anyLength()}};
    }
}

TEST(RelayIntegrity, GigabytesArriveWholeInSessionsThatEndInAnyWay) {
    const auto network = TestNetwork::make();
    if (!network) GTEST_SKIP() << "no namespaces here";
    constexpr int lanesOfAFamily = 2;
    const std::uint64_t share = bytesAltogether() / (2 * lanesOfAFamily);
    std::vector<std::unique_ptr<LocalRelay>> relays;
    std::vector<std::jthread> lanes;
    for (const std::string address : {TestNetwork::serverIPv4, TestNetwork::serverIPv6}) {
        for (std::uint16_t port = 7000; port < 7000 + lanesOfAFamily; ++port) {
            relays.push_back(std::make_unique<LocalRelay>(
                address, port, NWInterface("eth0", NWInterface::InterfaceType::wiredEthernet)));
            lanes.emplace_back([share, lane = relays.size(), &relay = *relays.back(),
                                listener = network->listenInWorld(address, port)] {
                playMany(relay, listener, lane, share);
            });
        }
    }
}

}  // namespace
}  // namespace platform
