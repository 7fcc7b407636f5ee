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
#include <cstring>
#include <iostream>
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

std::uint64_t mixed(std::uint64_t word) {
    word = (word ^ (word >> 30)) * 0xbf58476d1ce4e5b9;
    word = (word ^ (word >> 27)) * 0x94d049bb133111eb;
    return word ^ (word >> 31);
}

// What one side sends. No two places of it are alike, so that a block that is lost, doubled or
// exchanged shows wherever it was cut.
class Content {
public:
    explicit Content(std::uint64_t seed) : base(mixed(seed)) {}

    // The bytes from `position` on, valid until the next call.
    std::string_view at(std::uint64_t position, std::size_t length) {
        const std::uint64_t firstWord = position / sizeof(std::uint64_t);
        const std::size_t skipped = position % sizeof(std::uint64_t);
        const std::size_t count = (skipped + length + sizeof(std::uint64_t) - 1) / sizeof words[0];
        if (words.size() < count) words.resize(count);
        for (std::size_t i = 0; i < count; ++i)
            words[i] = mixed(base + (firstWord + i) * 0x9e3779b97f4a7c15);
        return {reinterpret_cast<const char*>(words.data()) + skipped, length};
    }

private:
    const std::uint64_t base;
    std::vector<std::uint64_t> words;
};

struct Stream {
    std::uint64_t seed;
    std::uint64_t length;
};

// Sizes from a byte to the largest, each order of magnitude as likely, and a pause now and then.
class Pieces {
public:
    explicit Pieces(std::uint64_t seed) : random(seed) {}

    std::size_t next() {
        if (random() % 64 == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        return 1 + random() % (std::size_t{1} << (random() % (piecesUpTo + 1)));
    }

private:
    std::mt19937_64 random;
};

// False if the session ended before all was sent.
bool send(const FileDescriptor& socket, const Stream& stream, std::uint64_t seed) {
    Content content(stream.seed);
    Pieces pieces(seed);
    for (std::uint64_t sent = 0; sent < stream.length;) {
        const auto size = std::min<std::uint64_t>(pieces.next(), stream.length - sent);
        const auto piece = content.at(sent, size);
        const ssize_t count = ::send(socket.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
        if (count < 0) return false;
        sent += static_cast<std::uint64_t>(count);
    }
    return true;
}

struct Received {
    std::uint64_t length = 0;
    bool isRight = true;

    bool isAllOf(const Stream& stream) const { return isRight && length == stream.length; }
    bool isBeginningOf(const Stream& stream) const { return isRight && length <= stream.length; }
};

// Receives until the stream ends; `hasAll` hears when all bytes are there or the stream has ended.
Received receive(const FileDescriptor& socket, const Stream& stream, std::uint64_t seed,
                 std::latch& hasAll) {
    Content content(stream.seed);
    Pieces pieces(seed);
    std::vector<char> buffer(std::size_t{1} << piecesUpTo);
    Received received;
    for (bool hasSaidSo = false;;) {
        const ssize_t count = ::recv(socket.get(), buffer.data(), pieces.next(), 0);
        EXPECT_FALSE(count < 0 && errno == EAGAIN) << "nothing came for long";
        if (count > 0) {
            const std::string_view bytes(buffer.data(), static_cast<std::size_t>(count));
            received.isRight &= bytes == content.at(received.length, bytes.size());
            received.length += bytes.size();
        }
        if (!hasSaidSo && (count <= 0 || received.length >= stream.length)) {
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
};

struct Outcome {
    Received up;
    Received down;
};

void waitNoLongerThan(const FileDescriptor& socket, int seconds) {
    const timeval patience{seconds, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

Outcome play(const Story& story, const FileDescriptor& application, const FileDescriptor& server) {
    Outcome outcome;
    std::latch applicationHasAll(1), serverHasAll(1);
    // Who sees the end of the session gives up its own sending.
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        outcome.down = receive(application, story.down, story.down.seed + 1, applicationHasAll);
        ::shutdown(application.get(), SHUT_RDWR);
    });
    threads.emplace_back([&] {
        outcome.up = receive(server, story.up, story.up.seed + 1, serverHasAll);
        ::shutdown(server.get(), SHUT_RDWR);
    });
    threads.emplace_back([&] {
        send(application, story.up, story.up.seed + 2);
        if (story.end == End::applicationWithAll) applicationHasAll.wait();
        if (story.end != End::server) ::shutdown(application.get(), SHUT_WR);
    });
    threads.emplace_back([&] {
        send(server, story.down, story.down.seed + 2);
        if (story.end == End::server || story.end == End::bothAtOnce)
            ::shutdown(server.get(), SHUT_WR);
    });
    for (auto& thread : threads) thread.join();
    return outcome;
}

bool isAsItShouldBe(const Story& story, const Outcome& outcome) {
    if (!outcome.up.isBeginningOf(story.up) || !outcome.down.isBeginningOf(story.down))
        return false;
    const bool isUpWhole = outcome.up.isAllOf(story.up);
    const bool isDownWhole = outcome.down.isAllOf(story.down);
    switch (story.end) {
        case End::applicationWithAll:
            return isUpWhole && isDownWhole;
        case End::application:
            return isUpWhole;
        case End::server:
            return isDownWhole;
        case End::bothAtOnce:
            return isUpWhole || isDownWhole;
    }
    return false;
}

struct Tally {
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<int> sessions{0};
};

// One session after the other until `share` bytes have arrived: a long one, then any.
void playMany(const LocalRelay& relay, const FileDescriptor& listener, std::uint64_t lane,
              std::uint64_t share, Tally& tally) {
    std::mt19937_64 random(lane);
    const auto anyLength = [&] { return 1 + random() % (1ULL << (10 + random() % 16)); };
    std::uint64_t seed = lane << 32;
    Story story{End::applicationWithAll, {seed += 8, share / 8}, {seed += 8, share / 8}};
    for (std::uint64_t arrived = 0; arrived < share && !::testing::Test::HasFailure();) {
        const auto application = relay.connect();
        const auto server = acceptFrom(listener);
        EXPECT_TRUE(peerAddressOf(server) == "192.0.2.2" || peerAddressOf(server) == "fd02::2");
        waitNoLongerThan(application, 60);
        waitNoLongerThan(server, 60);
        const auto outcome = play(story, application, server);
        EXPECT_TRUE(isAsItShouldBe(story, outcome))
            << "end " << static_cast<int>(story.end) << ", up " << outcome.up.length << " of "
            << story.up.length << ", down " << outcome.down.length << " of " << story.down.length
            << ", seed " << story.up.seed;
        arrived += outcome.up.length + outcome.down.length;
        ++tally.sessions;
        const auto length = anyLength();
        story = {static_cast<End>(random() % 4),
                 {seed += 8, length},
                 {seed += 8, random() % 2 == 0 ? length : anyLength()}};
        tally.bytes += outcome.up.length + outcome.down.length;
    }
}

TEST(RelayIntegrity, GigabytesArriveWholeInSessionsThatEndInAnyWay) {
    const auto network = TestNetwork::make();
    if (!network) GTEST_SKIP() << "no namespaces here";
    constexpr int lanesOfAFamily = 2;
    const std::uint64_t share = bytesAltogether() / (2 * lanesOfAFamily);
    Tally tally;
    std::vector<std::thread> lanes;
    std::vector<std::unique_ptr<LocalRelay>> relays;
    for (const std::string address : {TestNetwork::serverIPv4, TestNetwork::serverIPv6}) {
        for (std::uint16_t port = 7000; port < 7000 + lanesOfAFamily; ++port) {
            relays.push_back(std::make_unique<LocalRelay>(
                address, port, NWInterface("eth0", NWInterface::InterfaceType::wiredEthernet)));
            lanes.emplace_back([&tally, share, lane = relays.size(), &relay = *relays.back(),
                                listener = network->listenInWorld(address, port)] {
                playMany(relay, listener, lane, share, tally);
            });
        }
    }
    for (auto& lane : lanes) lane.join();
    std::cout << "checked " << (tally.bytes >> 20) << " MiB in " << tally.sessions << " sessions\n";
    EXPECT_TRUE(HasFailure() || tally.bytes >= bytesAltogether());
}

}  // namespace
}  // namespace platform
