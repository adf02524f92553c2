// The client of all measurements: one kind of load on a local port, its figures printed as one JSON object.
// It says "ready" when its sessions stand and starts when it reads a line, so that what is measured around it
// begins there. Usage: bench-load PORT KIND NUMBER [WORD [WORD]], see the kinds below.

#include <poll.h>

#include <algorithm>
#include <asio.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Request.h"

namespace {

using asio::ip::tcp;
using bench::MakeRequest;
using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

constexpr std::chrono::seconds patience{6};     // what takes longer is cut short and judged by what was done
constexpr std::chrono::seconds standstill{20};  // is no forwarder slow, but one that has failed
constexpr std::size_t chunkBytes = 262144;

asio::io_context io;
tcp::endpoint target;

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

tcp::socket Connect() {
    tcp::socket socket(io);
    socket.connect(target);
    socket.set_option(tcp::no_delay(true));
    return socket;
}

void Ask(tcp::socket& socket, bench::Wish wish, std::uint64_t bytes = 0) {
    asio::write(socket,
                asio::buffer(MakeRequest(wish, bytes), wish == bench::touch ? 1 : bench::requestBytes));
}

void ReadByte(tcp::socket& socket) {
    char byte = 0;
    asio::read(socket, asio::buffer(&byte, 1));
}

/// Each is through to the service when this returns.
std::vector<tcp::socket> ConnectMany(std::size_t count) {
    std::vector<tcp::socket> sockets;
    for (std::size_t i = 0; i < count; ++i) {
        sockets.push_back(Connect());
        Ask(sockets.back(), bench::touch);
    }
    for (auto& socket : sockets) ReadByte(socket);
    return sockets;
}

void WaitForStart() {
    std::puts("ready");
    std::fflush(stdout);
    std::string line;
    std::getline(std::cin, line);
}

std::string RandomBytes(std::size_t count) {
    std::mt19937 random(std::random_device{}());
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

/// Sessions that all move the same number of bytes in one direction, each as fast as it can.
class Streams {
public:
    Streams(std::size_t count, const std::string& direction)
        : sockets(ConnectMany(count)), isUpload(direction == "up") {}

    void Move(std::uint64_t bytesEach) {
        for (auto& socket : sockets) {
            Ask(socket, isUpload ? bench::upload : bench::download, bytesEach);
            socket.non_blocking(true);
            watched.push_back({socket.native_handle(), static_cast<short>(isUpload ? POLLIN : POLLOUT), 0});
        }
        left.assign(sockets.size(), bytesEach);
        for (std::size_t unfinished = sockets.size(); unfinished > 0;) unfinished -= MoveWhatIsReady();
        for (auto& socket : sockets) socket.non_blocking(false);
        if (!isUpload) std::for_each(sockets.begin(), sockets.end(), ReadByte);  // the service has it all
    }

private:
    std::size_t MoveWhatIsReady() {
        const int milliseconds = 1000 * static_cast<int>(standstill.count());
        if (poll(watched.data(), watched.size(), milliseconds) <= 0)
            throw std::runtime_error("the streams stand still");
        std::size_t finished = 0;
        for (std::size_t i = 0; i < sockets.size(); ++i) {
            if (watched[i].revents == 0) continue;
            MoveSome(sockets[i], left[i]);
            if (left[i] > 0) continue;
            watched[i].fd = -1;
            ++finished;
        }
        return finished;
    }

    void MoveSome(tcp::socket& socket, std::uint64_t& bytes) {
        const auto chunk = asio::buffer(buffer.data(), std::min<std::uint64_t>(bytes, chunkBytes));
        std::error_code error;
        bytes -= isUpload ? socket.read_some(chunk, error) : socket.write_some(chunk, error);
        if (error && error != asio::error::would_block) throw std::system_error(error);
    }

    std::vector<tcp::socket> sockets;
    bool isUpload;
    std::vector<pollfd> watched;
    std::vector<std::uint64_t> left;
    std::string buffer = std::string(chunkBytes, '.');
};

// ---- The kinds of load

/// prove BYTES: random bytes to the service and back, compared.
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

/// bulk BYTES up|down STREAMS: that many bytes in all.
void Bulk(std::size_t count, const Words& words) {
    const std::size_t streams = std::stoul(words.at(1));
    Streams all(streams, words.at(0));
    WaitForStart();
    const auto start = Clock::now();
    all.Move(count / streams);
    std::printf("{\"bytes\": %zu, \"seconds\": %.6f}\n", count / streams * streams, Since(start));
}

/// roundtrip TIMES whole|request|both [up|down]: 64 bytes each way, one after the other; the request in two
/// writes, or both it and the reply; beside a stream that is as busy as it can be.
void RoundTrip(std::size_t count, const Words& words) {
    const bool inTwo = words.at(0) != "whole";
    const auto request = MakeRequest(words.at(0) == "both" ? bench::replyTwice : bench::replyWhole);
    bench::Request reply;
    auto socket = ConnectMany(1);
    if (words.size() > 1) {
        std::thread([direction = words[1]] { Streams(1, direction).Move(std::uint64_t{1} << 50); }).detach();
        std::this_thread::sleep_for(std::chrono::seconds(1));  // until its buffers are full
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

/// sessions TIMES: opened, one byte there and back, closed, one after the other.
void Sessions(std::size_t count, const Words&) {
    WaitForStart();
    std::size_t done = 0;
    const auto start = Clock::now();
    for (; done < count && Since(start) < patience.count(); ++done) ConnectMany(1);
    std::printf("{\"sessions\": %zu, \"seconds\": %.6f}\n", done, Since(start));
}

/// idle SESSIONS: open and silent until a line is read.
void Idle(std::size_t count, const Words&) {
    const auto sockets = ConnectMany(count);
    WaitForStart();
    std::printf("{\"sessions\": %zu}\n", sockets.size());
}

const std::map<std::string, void (*)(std::size_t, const Words&)> kinds = {
    {"prove", Prove}, {"bulk", Bulk}, {"roundtrip", RoundTrip}, {"sessions", Sessions}, {"idle", Idle}};

}  // namespace

int main(int argc, char** argv) {
    try {
        const Words words(argv + 1, argv + argc);
        target = {asio::ip::address_v4::loopback(), static_cast<unsigned short>(std::stoul(words.at(0)))};
        kinds.at(words.at(1))(std::stoul(words.at(2)), Words(words.begin() + 3, words.end()));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench-load: %s\n", error.what());
        return 1;
    }
    std::fflush(stdout);
    std::_Exit(0);  // the stream beside is still at work
}
