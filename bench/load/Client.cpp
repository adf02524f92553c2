#include "bench/load/Client.h"

#include <cstdio>
#include <iostream>

namespace load {

namespace {

asio::io_context nobodyRuns;
tcp::endpoint target;

}  // namespace

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void SetTarget(const std::string& port) {
    target = {asio::ip::address_v4::loopback(), static_cast<unsigned short>(std::stoul(port))};
}

tcp::socket Connect() { return Connect(nobodyRuns); }

tcp::socket Connect(asio::io_context& io) {
    tcp::socket socket(io);
    socket.connect(target);
    socket.set_option(tcp::no_delay(true));
    return socket;
}

std::vector<tcp::socket> ConnectMany(std::size_t count) {
    std::vector<tcp::socket> sockets;
    for (std::size_t i = 0; i < count; ++i) {
        sockets.push_back(Connect());
        Ask(sockets.back(), bench::touch);
    }
    for (auto& socket : sockets) ReadByte(socket);
    return sockets;
}

void Ask(tcp::socket& socket, bench::Wish wish, std::uint64_t bytes) {
    asio::write(socket,
                asio::buffer(MakeRequest(wish, bytes), wish == bench::touch ? 1 : bench::requestBytes));
}

void ReadByte(tcp::socket& socket) {
    char byte = 0;
    asio::read(socket, asio::buffer(&byte, 1));
}

void WaitForStart() {
    std::puts("ready");
    std::fflush(stdout);
    std::string line;
    std::getline(std::cin, line);
}

}  // namespace load
