#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The ground under the fuzz targets: a process whose connections lead nowhere but into the input.
///
/// SealedWorld.cpp takes the place of the C library's connect, recv, getaddrinfo, clock_gettime and of the
/// calls with which asio waits. A connect yields one end of a socket pair, so no input causes traffic beyond
/// this process, whatever addresses it names. The monotonic clock stands still while anything can be read or
/// written. When nothing can, the peers read the bytes that were sent to them; when there were none either,
/// the clock jumps to the next timer or to the next text of a peer, whichever is earlier. So the real delays
/// take no time, and no run depends on the speed of the machine.
namespace fuzz {

/// Makes the input a finding, with `promise` as the reason, unless the condition holds.
void Require(bool condition, const char* promise);

/// A text that a peer sends after a pause.
struct Saying {
    std::chrono::seconds pause{0};  ///< since its text before, or since the connect
    std::string text;
};

/// The other end of one connection: its texts, and its behaviour after the last one.
struct Peer {
    enum Ending { HangsUp, StaysSilent, GoesDeaf };  ///< deaf: sending to it fails

    std::vector<Saying> says;
    Ending ending = HangsUp;

    explicit Peer(const std::string& text, Ending then = HangsUp) : says{{{}, text}}, ending(then) {}
    explicit Peer(std::vector<Saying> texts) : says(std::move(texts)) {}
};

/// Who answers at a port of 127.0.0.1. Without an answer the connection is refused, as it is at any other
/// address.
using Directory = std::function<std::optional<Peer>(std::uint16_t port)>;

/// The connections of one run. There is one object at a time.
class SealedWorld {
public:
    /// @param piece how many bytes each of the first reads returns at most, at least 1
    explicit SealedWorld(Directory whoAnswers, std::size_t piece = SIZE_MAX);
    ~SealedWorld();  ///< requires that every descriptor opened meanwhile has been closed
    SealedWorld(const SealedWorld&) = delete;
    SealedWorld& operator=(const SealedWorld&) = delete;

    int Connect(int socket, std::uint16_t port);
    std::size_t NextReadBytes();  ///< the most that the next read may return
    bool Listen();                ///< reads the bytes sent to the peers; false when there are none
    /// Lets time pass until a peer sends its next text, or for `limit` when that is earlier.
    void PassTime(std::chrono::milliseconds limit);
    bool IsSilent() const;       ///< no peer has a text left
    const std::string& Heard();  ///< the bytes sent on the first connection

private:
    using Instant = std::chrono::nanoseconds;  // of the monotonic clock
    struct Line {
        int descriptor;
        Peer peer;
        std::size_t next;  // of its texts
        Instant due;       // when it is sent
    };
    static void Speak(Line& line);

    Directory directory;
    std::size_t pieceBytes;
    int smallReads = 200;  // later ones return everything: they would only take time
    long openBefore;       // descriptors
    std::vector<Line> lines;
    std::string heard;
};

}  // namespace fuzz
