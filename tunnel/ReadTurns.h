#pragma once

#include <array>
#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

namespace nox::tunnel_client {

/// Lets sessions take turns at reading from their services while the tunnel is busy.
///
/// A session that is alone may read ahead while its own frames wait to be written. When frames of another
/// session wait, or another has read within the last five seconds, it takes its turn: it reads when the queue
/// is empty, in the order of asking. So sessions together hold no more memory than one, and none waits for
/// all that another could read ahead. On a line that has to be waited for a turn is one frame, so that the
/// next session has its turn soon; on one that takes everything a turn is several frames, because each turn
/// costs calls.
///
/// A line on which nothing leaves the device stands still, which is noticed after one to two stall limits.
/// Then waiting is of no use: every session may read, up to its own limit, and those that wait do so one
/// after the other, until something leaves. A line that only pauses now and then is given more time after
/// each mistake.
///
/// Everything runs on the thread of `io`; the object lives as long as the loop runs.
class ReadTurns {
public:
    /// The tunnel's outgoing side, which decides who may read.
    class Line {
    public:
        virtual ~Line() = default;
        /// Frames that wait to be written.
        virtual std::size_t FramesWaiting() const = 0;
        /// How often the line had to be waited for, ever.
        virtual std::uint64_t Waits() const = 0;
        /// Bytes that have left the device, ever: the server's side has acknowledged them.
        virtual std::uint64_t Departed() const = 0;
    };

    /// A session that takes turns.
    class Reader {
    public:
        virtual ~Reader() = default;
        /// Its turn has come. @param frames that it may read at most
        virtual void ReadInTurn(int frames) = 0;
    };

    static constexpr int allFrames = 20;  ///< as many as a session may have waiting

    /// @param tunnel not owned, outlives this object
    ReadTurns(asio::io_context& io, const Line& tunnel, std::chrono::milliseconds stall)
        : line(tunnel), timer(io), firstStallLimit(stall), stallLimit(stall) {}

    /// @param ownFrames how many of the frames that wait are the asking reader's
    /// @return how many frames it may read now; 0: it has to wait for its turn
    int MayRead(const Reader& reader, int ownFrames);
    /// Calls ReadInTurn once, later. @param reader not owned; leaves before it is destroyed
    void Wait(Reader& reader);
    /// The reader does not wait any more, if it did.
    void Leave(const Reader& reader);
    /// Gives turns until a frame waits again. To be called whenever none does.
    void GiveTurns();

private:
    using Clock = std::chrono::steady_clock;

    static constexpr int aloneFrames = 8;  // in a turn while nobody else waits
    static constexpr std::array<int, 5> sharedFrames{
        1, 1, 2, 4, 8};  // in other turns, by the number of free turns before

    bool IsFreeFor(const Reader& reader, int ownFrames) const;
    void NoteReader(const Reader& reader);
    bool IsStalled();
    int NextTurn();
    void GiveTurn(int frames);
    void Watch(std::chrono::milliseconds delay);
    void OnTimer();

    const Line& line;
    std::deque<Reader*> waiting;
    const Reader* lastReader = nullptr;  // who read last
    Clock::time_point sharedUntil{};     // for a while after another has read, nobody reads ahead
    std::uint64_t waitsSeen = 0;         // the line's count at the last turn
    std::size_t freeTurns = 0;           // turns in a row without a wait for the line; 4 at most
    asio::steady_timer timer;            // runs while readers wait
    bool isWatching = false;
    std::uint64_t watchedFrom = 0;  // bytes that had departed when the timer was started
    std::chrono::milliseconds firstStallLimit, stallLimit;
    std::optional<std::uint64_t> stalledAt;  // bytes that had departed when the line was found to stand still
};

}  // namespace nox::tunnel_client
