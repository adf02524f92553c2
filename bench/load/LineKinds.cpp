// Loads that show whether a session gets its share of a slow line, and how soon the frames of others that
// have ended are gone. For the agent a slow line and a server that reads slowly are the same.

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "bench/load/Flood.h"
#include "bench/load/Kinds.h"

namespace load {

namespace {

constexpr std::chrono::seconds settling{2};   // until an upload's buffers are full
constexpr std::chrono::seconds aftermath{6};  // how long the effects of a client's end are watched

double RoundTripMillis(tcp::socket& socket) {
    bench::Request reply;
    const auto sent = Clock::now();
    Ask(socket, bench::replyWhole);
    asio::read(socket, asio::buffer(reply));
    return 1e3 * Since(sent);
}

/// Sorted. @param wanted whether another one is
template <typename Wanted>
std::vector<double> RoundTrips(tcp::socket& socket, Wanted wanted) {
    std::vector<double> millis;
    do millis.push_back(RoundTripMillis(socket));
    while (wanted());
    std::sort(millis.begin(), millis.end());
    return millis;
}

std::vector<double> RoundTripsFor(std::chrono::seconds duration, tcp::socket& socket) {
    return RoundTrips(socket, [end = Clock::now() + duration] { return Clock::now() < end; });
}

/// The request to close is on its way to the service for a part of that; nothing is slow in that direction.
double MillisUntilClosed(tcp::socket& socket) {
    const auto asked = Clock::now();
    Ask(socket, bench::leave);
    char byte = 0;
    std::error_code error;
    asio::read(socket, asio::buffer(&byte, 1), error);
    if (error != asio::error::eof) throw std::runtime_error("a service's close did not come as the end");
    return 1e3 * Since(asked);
}

std::vector<double> SortedMillisUntilClosed(std::vector<tcp::socket>& sockets) {
    std::vector<double> millis;
    for (auto& socket : sockets) millis.push_back(MillisUntilClosed(socket));
    std::sort(millis.begin(), millis.end());
    return millis;
}

double Median(const std::vector<double>& sorted) { return sorted[sorted.size() / 2]; }

}  // namespace

void Uploads(std::size_t sessions, const Words&) {
    const Flood flood(sessions);
    flood.WaitUntilReceived(1);
    WaitForStart();
    std::printf("{\"bytes\": %ju}\n", static_cast<std::uintmax_t>(flood.Received()));
}

void Beside(std::size_t uploads, const Words& words) {
    auto echo = ConnectMany(1), quiet = ConnectMany(std::stoul(words.at(1)));
    Flood flood(uploads);
    std::this_thread::sleep_for(settling);
    WaitForStart();
    const auto start = Clock::now();
    const std::uint64_t before = flood.Received();
    const auto during = RoundTripsFor(std::chrono::seconds(std::stoul(words.at(0))), echo[0]);
    const double bytesPerSecond = static_cast<double>(flood.Received() - before) / Since(start);
    const auto closes = SortedMillisUntilClosed(quiet);
    flood.EndOne();
    const auto after = RoundTripsFor(aftermath, echo[0]);
    std::printf("{\"p50\": %.1f, \"closed\": %.1f, \"worst after\": %.1f, \"bytes per s\": %.0f}\n",
                Median(during), closes.empty() ? 0 : Median(closes), after.back(), bytesPerSecond);
}

void Skips(std::size_t times, const Words& words) {
    const std::chrono::seconds duration(std::stoul(words.at(0)));
    auto echo = ConnectMany(1);
    WaitForStart();
    std::atomic<bool> watching{true};
    std::thread viewer([&] {
        for (std::size_t i = 0; i < times; ++i) {
            const Flood recording(1);
            std::this_thread::sleep_for(duration);
        }
        watching = false;
    });
    const auto millis = RoundTrips(echo[0], [&] { return watching.load(); });
    viewer.join();
    std::printf("{\"times\": %zu, \"worst\": %.1f}\n", millis.size(), millis.back());
}

}  // namespace load
