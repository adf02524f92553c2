#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace lab {

/// Bytes that come in at the back and leave at the front, in one piece of memory that is never zeroed:
/// sockets read into it and write out of it directly. It grows as it must and keeps its memory; who fills it
/// decides when to stop.
class ByteBuffer {
public:
    std::string_view Bytes() const { return {memory.get() + begin, end - begin}; }
    std::size_t Size() const { return end - begin; }

    /// Room for `bytes` more behind the others; what is written there counts from Commit on.
    /// Moves the others.
    char* Reserve(std::size_t bytes);
    void Commit(std::size_t bytes) { end += bytes; }
    void Append(std::string_view bytes);
    void Consume(std::size_t bytes);

private:
    std::unique_ptr<char[]> memory;
    std::size_t capacity = 0, begin = 0, end = 0;
};

/// Bytes on their way into a socket: some are being written and stay where they are, others
/// gather behind them.
class Outbox {
public:
    /// What is written next goes in here. Not for long: Next swaps the buffers.
    ByteBuffer& Back() { return gathering; }
    std::size_t Size() const { return gathering.Size() + leaving.Size(); }

    /// The bytes to write now, all of them when the last ones have left; valid until Sent.
    std::string_view Next();
    void Sent(std::size_t bytes);

    /// Positions in the stream: how many bytes ever went in, and how many left.
    std::uint64_t Queued() const { return sent + Size(); }
    std::uint64_t Left() const { return sent; }

private:
    ByteBuffer gathering, leaving;
    std::uint64_t sent = 0;
};

}  // namespace lab
