#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

namespace nox::tunnel_client {

/// Lets sessions take turns at reading from their services while the tunnel is busy.
///
/// A session may read ahead while its own frames are all that waits to be written. When frames of another session
/// wait, it takes its turn: it reads when the queue is empty, in the order of asking. So sessions together hold no more
/// memory than one, and none waits for all that another could read ahead. On a line that has to be waited for a turn is
/// one frame, so that the next session has its turn soon; on one that takes everything a turn is several frames,
/// because each turn costs calls.
///
/// When nothing has left the device for the stall limit, or for twice as long, waiting is of no use: then every session
/// may read, each up to its own limit, until something leaves.
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

    /// Whoever takes turns.
    class Reader {
    public:
        virtual ~Reader() = default;
        /// Its turn has come. @param frames that it may read at most
        virtual void ReadInTurn(int frames) = 0;
    };

    static constexpr int allFrames = INT32_MAX;  ///< no limit but the reader's own

    /// @param tunnel not owned, outlives this object
    ReadTurns(asio::io_context& io, const Line& tunnel, std::chrono::milliseconds stall)
        : line(tunnel), timer(io), stallLimit(stall) {}

    /// @param ownFrames how many of the frames that wait are the asking reader's
    /// @return how many frames it may read now; 0: it has to wait for its turn
    int MayRead(const Reader& reader, int ownFrames);
    /// Calls ReadInTurn once, later, unless the reader is gone or has left by then.
    void Wait(std::weak_ptr<Reader> reader);
    /// The reader does not wait any more.
    void Leave(const Reader& reader);
    /// Gives turns until a frame waits again. To be called whenever none does.
    void GiveTurns();

private:
    static constexpr std::uint64_t never = UINT64_MAX;
    static constexpr int aloneFrames = 8;   // in a turn that nobody else waits for
    static constexpr int sharedFrames = 4;  // in another, at most

    using Clock = std::chrono::steady_clock;

    bool IsFreeFor(const Reader& reader, int ownFrames) const;
    void Note(const Reader& reader);
    bool IsStalled() const { return stalledAt != never && line.Departed() == stalledAt; }
    bool HasNext();
    int NextTurn();
    void GiveTurn(int frames);
    void Watch(std::chrono::milliseconds delay);
    void OnTimer();

    const Line& line;
    std::deque<std::weak_ptr<Reader>> waiting;
    const Reader* lastReader = nullptr;  // who read last; only compared, it may be gone
    Clock::time_point sharedUntil{};     // for a while after another has read, nobody reads ahead
    int turn = 1;                        // frames in the last turn
    int freeTurns = 0;                   // in a row that the line did not have to be waited for
    std::uint64_t waitsSeen = 0;         // of the line, by then
    asio::steady_timer timer;
    std::chrono::milliseconds stallLimit;
    bool isWatching = false;          // while readers wait: for the line to stand still, or to move again
    std::uint64_t watchedFrom = 0;    // what had departed when the timer was started
    std::uint64_t stalledAt = never;  // what had departed when the line was found to stand still
};

}  // namespace nox::tunnel_client
