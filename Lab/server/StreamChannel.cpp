#include "Lab/server/StreamChannel.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

namespace lab {

StreamChannel::StreamChannel(Descriptor socket, Observation& observation)
    : socket_(std::move(socket)), observation_(observation), outgoing_(greeting(observation)) {}

bool StreamChannel::readable() {
    std::array<char, 65536> buffer;
    const auto count = recv(socket_.number(), buffer.data(), buffer.size(), 0);
    if (count < 0) return errno == EAGAIN || endedByClient(errno);
    if (count == 0) return service_ == Service::tally ? tellTally() : endedByClient(0);
    observation_.bytesReceived += static_cast<uint64_t>(count);
    return consume({buffer.data(), static_cast<size_t>(count)});
}

bool StreamChannel::consume(std::string_view bytes) {
    if (service_ == Service::echo) outgoing_ += bytes;
    if (service_ != Service::unnamed) return flush();
    firstLine_ += bytes;
    const auto end = firstLine_.find('\n');
    if (end == std::string::npos) return firstLine_.size() < 1024;
    const auto rest = firstLine_.substr(end + 1);
    if (!choose(firstLine_.substr(0, end))) return false;
    return rest.empty() ? flush() : consume(rest);
}

bool StreamChannel::choose(const std::string& line) {
    if (line == "reset") return endWithReset();
    if (line == "echo") service_ = Service::echo;
    if (line == "upload") service_ = Service::upload;
    if (line == "slow") service_ = Service::slow;
    if (line == "tally") service_ = Service::tally;
    if (line.starts_with("download ")) {
        service_ = Service::download;
        std::from_chars(line.data() + 9, line.data() + line.size(), downloadRemaining_);
    }
    return service_ != Service::unnamed;
}

bool StreamChannel::writable() { return flush(); }

bool StreamChannel::tick() {
    if (service_ != Service::slow || !outgoing_.empty()) return true;
    outgoing_ = "slow stream\n";
    return flush();
}

bool StreamChannel::flush() {
    if (outgoing_.empty() && downloadRemaining_ > 0) {
        outgoing_.assign(std::min<uint64_t>(downloadRemaining_, 65536), 'd');
        downloadRemaining_ -= outgoing_.size();
    }
    if (outgoing_.empty()) return true;
    const auto count = send(socket_.number(), outgoing_.data(), outgoing_.size(), MSG_NOSIGNAL);
    if (count < 0) return errno == EAGAIN || endedByClient(errno);
    observation_.bytesSent += static_cast<uint64_t>(count);
    outgoing_.erase(0, static_cast<size_t>(count));
    const auto isDone = service_ == Service::download && !wantsToWrite();
    if (isDone) observation_.state = "closed";
    return !isDone;
}

bool StreamChannel::tellTally() {
    // All that is left to do is what a download ends with.
    service_ = Service::download;
    outgoing_ = std::to_string(observation_.bytesReceived) + "\n";
    return flush();
}

bool StreamChannel::endedByClient(int error) {
    observation_.state = error == 0 ? "closed" : error == ECONNRESET ? "reset" : "failed";
    return false;
}

bool StreamChannel::endWithReset() {
    const linger immediately{.l_onoff = 1, .l_linger = 0};
    setsockopt(socket_.number(), SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
    observation_.state = "closed";
    return false;
}

}  // namespace lab
