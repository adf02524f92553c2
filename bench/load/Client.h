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

constexpr std::chrono::seconds patience{6};     // what takes longer is cut short and judged by what was done
constexpr std::chrono::seconds standstill{20};  // is no forwarder slow, but one that has failed
constexpr std::size_t chunkBytes = 262144;
constexpr std::uint64_t endless = std::uint64_t{1} << 50;

double Since(Clock::time_point start);  ///< in seconds

void SetTarget(const std::string& port);  ///< before all else
/// The socket may be used without running anything.
tcp::socket Connect();
tcp::socket Connect(asio::io_context& io);
/// Each is through to the service when this returns.
std::vector<tcp::socket> ConnectMany(std::size_t count);

void Ask(tcp::socket& socket, bench::Wish wish, std::uint64_t bytes = 0);
void ReadByte(tcp::socket& socket);

/// Says "ready" and waits for a line, so that what is measured around the load begins or ends there.
void WaitForStart();

}  // namespace load
