#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// What the fuzz targets stand on: a process whose connections lead nowhere but into the input.
///
/// SealedWorld.cpp takes the place of the C library's connect, recv, getaddrinfo,
/// clock_gettime and of the calls with which asio waits. Whoever connects gets one end of a
/// socket pair, so no input, whatever addresses it names, causes traffic beyond this process,
/// and everything a peer says is there at once. When nothing is ready to be read or written,
/// the peers read what they were sent; when that was nothing, the monotonic clock jumps to the
/// next timer: the real delays take no time, and no run depends on how fast it is.
namespace fuzz {

/// Makes the input a finding, with `promise` as the reason, unless the condition holds.
void Require(bool condition, const char* promise);

/// The other end of one connection, and what it does when it has said its text.
struct Peer {
    enum Ending { HangsUp, StaysSilent, GoesDeaf };  ///< deaf: what it is sent fails

    std::string says;
    Ending ending = HangsUp;
};

/// Who answers at that port of 127.0.0.1; nobody: the connection is refused, as it is at any other address.
using Directory = std::function<std::optional<Peer>(std::uint16_t port)>;

/// One run's connections; there is one object at a time.
class SealedWorld {
public:
    /// @param piece how many bytes one read returns at most, at least 1
    explicit SealedWorld(Directory whoAnswers, std::size_t piece = SIZE_MAX);
    ~SealedWorld();  ///< requires that every descriptor opened meanwhile has been closed
    SealedWorld(const SealedWorld&) = delete;
    SealedWorld& operator=(const SealedWorld&) = delete;

    int Connect(int socket, std::uint16_t port);
    std::size_t PieceBytes() const { return pieceBytes; }
    bool Listen();               ///< reads what was sent to the peers; false when that is nothing
    const std::string& Heard();  ///< what was sent on the first connection

private:
    Directory directory;
    std::size_t pieceBytes;
    long openBefore;  // descriptors
    std::vector<int> peers;
    std::string heard;
};

}  // namespace fuzz
