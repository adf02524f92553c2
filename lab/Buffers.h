#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace lab {

/// A queue of bytes in one piece of memory, which sockets read into and write out of directly and which is
/// never zeroed. It grows as needed and keeps its memory; whoever fills it limits its size.
class ByteBuffer {
public:
    std::string_view Bytes() const { return {memory.get() + begin, end - begin}; }
    std::size_t Size() const { return end - begin; }

    /// Returns room for `bytes` more behind the queued ones, which may move. Bytes that are written there are
    /// queued by Commit.
    char* Reserve(std::size_t bytes);
    void Commit(std::size_t bytes) { end += bytes; }
    void Append(std::string_view bytes);
    void Consume(std::size_t bytes);

private:
    std::unique_ptr<char[]> memory;
    std::size_t capacity = 0, begin = 0, end = 0;
};

/// Bytes on their way into a socket: one buffer is being written and stays where it is, while a second one
/// gathers the bytes that come next.
class Outbox {
public:
    /// The gathering buffer. The reference is valid until Next, which swaps the buffers.
    ByteBuffer& Back() { return gathering; }
    std::size_t Size() const { return gathering.Size() + leaving.Size(); }

    /// The bytes to write now; once the last ones have left, these are all that have gathered. Valid until
    /// Sent.
    std::string_view Next();
    void Sent(std::size_t bytes);

    /// Positions in the stream: how many bytes have ever been put in, and how many have left.
    std::uint64_t Queued() const { return sent + Size(); }
    std::uint64_t Left() const { return sent; }

private:
    ByteBuffer gathering, leaving;
    std::uint64_t sent = 0;
};

}  // namespace lab
