#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/Request.h"

/// What all kinds of load need: clients of the forwarder's port, and the handshake with who measures.
namespace load {

using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;
using bench::MakeRequest;

constexpr std::chrono::seconds patience{6};     // a longer measurement is cut short and uses what it has
constexpr std::chrono::seconds standstill{20};  // after so long without a byte the forwarder has failed
constexpr std::size_t chunkBytes = 262144;
constexpr std::uint64_t endless = std::uint64_t{1} << 50;

double Since(Clock::time_point start);  ///< in seconds

void SetTarget(const std::string& port);  ///< to be called first
/// The socket may be used without running anything.
tcp::socket Connect();
tcp::socket Connect(asio::io_context& io);
/// Every connection has reached the service when this returns.
std::vector<tcp::socket> ConnectMany(std::size_t count);

void Ask(tcp::socket& socket, bench::Wish wish, std::uint64_t bytes = 0);
void ReadByte(tcp::socket& socket);

/// Prints "ready" and waits for a line, so that whoever measures around the load can begin or end there.
void WaitForStart();

}  // namespace load
