// Loads that move as many bytes as they can, round trips, and sessions.

#include <algorithm>
#include <cstdio>
#include <random>
#include <thread>

#include "bench/load/Flood.h"
#include "bench/load/Kinds.h"
#include "bench/load/Streams.h"

namespace load {

namespace {

constexpr std::chrono::seconds settling{1};  // time in which a stream's buffers fill

std::string RandomBytes(std::size_t count) {
    std::mt19937 random(std::random_device{}());
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

}  // namespace

void Prove(std::size_t count, const Words&) {
    auto socket = Connect();
    const std::string sent = RandomBytes(count);
    std::string received(count, '\0');
    Ask(socket, bench::echo, count);
    std::thread writer([&] { asio::write(socket, asio::buffer(sent)); });
    asio::read(socket, asio::buffer(received));
    writer.join();
    std::printf("{\"same\": %s}\n", sent == received ? "true" : "false");
}

void Bulk(std::size_t count, const Words& words) {
    const std::size_t streams = std::stoul(words.at(1));
    Streams all(streams, words.at(0));
    WaitForStart();
    const auto start = Clock::now();
    all.Move(count / streams);
    std::printf("{\"bytes\": %zu, \"seconds\": %.6f}\n", count / streams * streams, Since(start));
}

void Both(std::size_t seconds, const Words& words) {
    const Flood flood(std::stoul(words.at(0)), bench::bothWays);
    flood.WaitUntilReceived(1);
    std::this_thread::sleep_for(settling);
    WaitForStart();
    const auto start = Clock::now();
    const std::uint64_t receivedBefore = flood.Received(), sentBefore = flood.Sent();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const std::uint64_t up = flood.Received() - receivedBefore, down = flood.Sent() - sentBefore;
    std::printf("{\"up\": %ju, \"down\": %ju, \"seconds\": %.6f}\n", static_cast<std::uintmax_t>(up),
                static_cast<std::uintmax_t>(down), Since(start));
}

void RoundTrip(std::size_t count, const Words& words) {
    const bool inTwo = words.at(0) != "whole";
    const auto request = MakeRequest(words.at(0) == "both" ? bench::replyTwice : bench::replyWhole);
    bench::Request reply;
    auto socket = ConnectMany(1);
    if (words.size() > 1) {
        std::thread([direction = words[1]] { Streams(1, direction).Move(endless); }).detach();
        std::this_thread::sleep_for(settling);
    }
    WaitForStart();
    std::vector<double> micros;
    for (const auto start = Clock::now(); micros.size() < count && Since(start) < patience.count();) {
        const auto sent = Clock::now();
        const std::size_t first = inTwo ? request.size() / 2 : request.size();
        asio::write(socket[0], asio::buffer(request.data(), first));
        if (inTwo) asio::write(socket[0], asio::buffer(&request[first], request.size() - first));
        asio::read(socket[0], asio::buffer(reply));
        micros.push_back(1e6 * Since(sent));
    }
    std::sort(micros.begin(), micros.end());
    std::printf("{\"times\": %zu, \"p50\": %.1f, \"p99\": %.1f}\n", micros.size(), micros[micros.size() / 2],
                micros[micros.size() * 99 / 100]);
}

void Sessions(std::size_t count, const Words&) {
    WaitForStart();
    std::size_t done = 0;
    const auto start = Clock::now();
    for (; done < count && Since(start) < patience.count(); ++done) ConnectMany(1);
    std::printf("{\"sessions\": %zu, \"seconds\": %.6f}\n", done, Since(start));
}

}  // namespace load
