#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

/// Requests of the load to the service: either one byte, answered by the same byte, or 64 bytes. Their first
/// byte is the kind and the next eight are a count, in the machine's own byte order because both ends run on
/// it. When a request has been served, the service reads the next one from the same connection.
namespace bench {

constexpr std::size_t requestBytes = 64;
using Request = std::array<char, requestBytes>;

enum Wish : char {
    touch = '1',       ///< one byte, alone: the same byte back
    replyWhole = 'r',  ///< 64 bytes back in one write
    replyTwice = 't',  ///< 64 bytes back in two writes
    upload = 'u',      ///< as many bytes from the service
    download = 'd',    ///< as many bytes to the service, and one back when it has them
    echo = 'e',        ///< as many bytes to the service and back
    bothWays = 'b',    ///< bytes from the service and to it at once, until the client goes
    hold = 'h',        ///< nothing is read for as many milliseconds, then the connection is closed
    leave = 'l'        ///< the connection is closed at once
};

inline Request MakeRequest(Wish wish, std::uint64_t bytes = 0) {
    Request request{};
    request[0] = wish;
    std::memcpy(&request[1], &bytes, sizeof bytes);
    return request;
}

inline std::uint64_t BytesOf(const Request& request) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, &request[1], sizeof bytes);
    return bytes;
}

}  // namespace bench
