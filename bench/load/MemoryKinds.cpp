// Loads around which the memory of the device's process is read.

#include <cstdio>
#include <stdexcept>

#include "bench/load/Flood.h"
#include "bench/load/Kinds.h"

namespace load {

namespace {

constexpr std::size_t largestPayload = 131072;
constexpr std::size_t unreadBytes = 8 << 20;        // more than the kernel keeps of a connection
constexpr std::size_t firstPayloads = 100;          // until the lab has passed on all of that
constexpr std::uint64_t stuckMilliseconds = 40000;  // longer than the load takes
constexpr std::uint64_t flowingBytes = 64 << 20;    // then all uploads are under way

/// One small payload of the session whose service does not read, then a large one of another, which has
/// arrived when this returns, so that later bytes cannot share a frame with either.
void QueueOne(tcp::socket& stuck, std::size_t bytes, tcp::socket& other) {
    static const std::string content(largestPayload, '.');
    asio::write(stuck, asio::buffer(content, bytes));
    constexpr std::size_t rest = largestPayload - bench::requestBytes;
    const auto request = MakeRequest(bench::download, rest);
    asio::write(other, std::vector<asio::const_buffer>{asio::buffer(request), asio::buffer(content, rest)});
    ReadByte(other);
}

}  // namespace

void Idle(std::size_t sessions, const Words&) {
    const auto sockets = ConnectMany(sessions);
    WaitForStart();
    std::printf("{\"sessions\": %zu}\n", sockets.size());
}

void Queued(std::size_t payloads, const Words& words) {
    const std::size_t bytes = std::stoul(words.at(0));
    auto sockets = ConnectMany(2);
    tcp::socket &stuck = sockets[0], &other = sockets[1];
    Ask(stuck, bench::hold, stuckMilliseconds);
    asio::write(stuck, asio::buffer(std::string(unreadBytes, '.')));
    for (std::size_t i = 0; i < firstPayloads; ++i) QueueOne(stuck, bytes, other);
    WaitForStart();
    for (std::size_t i = 0; i < payloads; ++i) QueueOne(stuck, bytes, other);
    WaitForStart();
    std::printf("{\"payloads\": %zu}\n", payloads);
}

void Drained(std::size_t sessions, const Words& words) {
    const std::uint64_t bytesEach = std::stoull(words.at(0)), total = bytesEach * sessions;
    const auto idle = ConnectMany(1);
    {
        const Flood flood(sessions, bench::upload, bytesEach);
        flood.WaitUntilReceived(flowingBytes);
        WaitForStart();
        if (flood.Received() == total)
            throw std::runtime_error("the uploads were over before they could stall");
        flood.WaitUntilReceived(total);
    }
    WaitForStart();
    std::printf("{\"bytes\": %ju}\n", static_cast<std::uintmax_t>(total));
}

}  // namespace load
