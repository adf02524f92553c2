#include "bench/load/Flood.h"

#include <future>
#include <stdexcept>

namespace load {

Flood::Flood(std::size_t count, bench::Wish wish, std::uint64_t bytesEach) {
    for (std::size_t i = 0; i < count; ++i) {
        sockets.push_back(Connect(io));
        Ask(sockets.back(), wish, bytesEach);
    }
    for (auto& socket : sockets) {
        Read(socket);
        if (wish == bench::bothWays) Write(socket);
    }
    thread = std::thread([this] { io.run(); });
}

Flood::~Flood() {
    io.stop();
    thread.join();
}

void Flood::Read(tcp::socket& socket) {
    socket.async_read_some(asio::buffer(unused), [this, &socket](std::error_code error, std::size_t size) {
        if (error) return;
        received += size;
        Read(socket);
    });
}

void Flood::Write(tcp::socket& socket) {
    socket.async_write_some(asio::buffer(unused), [this, &socket](std::error_code error, std::size_t size) {
        if (error) return;
        sent += size;
        Write(socket);
    });
}

void Flood::WaitUntilReceived(std::uint64_t bytes) const {
    std::uint64_t before = 0;
    for (auto last = Clock::now(); received < bytes;
         std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
        if (received != before) last = Clock::now();
        before = received;
        if (Clock::now() - last > standstill) throw std::runtime_error("the flood stands still");
    }
}

void Flood::EndOne() {
    asio::post(io, asio::use_future([this] { sockets.back().close(); })).get();
}

}  // namespace load
