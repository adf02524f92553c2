#pragma once

#include <asio.hpp>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "bench/load/Client.h"

namespace load {

/// Clients that read the service's bytes as fast as they come, on a thread of their own, until this is
/// destroyed, which closes their connections in the middle of it.
class Flood {
public:
    /// @param wish upload, or bothWays, which the clients write for as fast as it goes, too
    /// @param bytesEach that the service sends to each
    explicit Flood(std::size_t count, bench::Wish wish = bench::upload, std::uint64_t bytesEach = endless);
    ~Flood();
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    /// Bytes of all clients together.
    std::uint64_t Received() const { return received; }
    std::uint64_t Sent() const { return sent; }
    /// @throws std::runtime_error when nothing more comes
    void WaitUntilReceived(std::uint64_t bytes) const;
    void EndOne();  ///< closes one connection in the middle of its stream

private:
    void Read(tcp::socket& socket);
    void Write(tcp::socket& socket);

    asio::io_context io{1};
    std::string unused = std::string(chunkBytes, '.');  // payload, the same for all clients
    std::vector<tcp::socket> sockets;
    std::atomic<std::uint64_t> received{0}, sent{0};
    std::thread thread;
};

}  // namespace load
