#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/Buffers.h"
#include "lab/wire/Members.h"
#include "soak/storm/Opening.h"

namespace storm {

constexpr const char* password = "storm-secret";

/// Composes the frames that the server will write, and updates an opening when the last byte of its frame has
/// left. Knows no socket.
class Speech {
public:
    std::string_view Bytes() const { return buffer.Bytes(); }
    std::size_t Size() const { return buffer.Size(); }
    /// The first `size` bytes have left.
    void Written(std::size_t size);
    /// Whether a signed message has begun to leave, at least.
    bool HasSigned() const { return hasSigned; }

    void Welcome();
    /// @param replaced the last one of the same id, or null
    void Open(Opening& opening, unsigned short port, Opening* replaced);
    void End(Opening& opening);
    /// The next `size` bytes of its stream in one frame, at most maxPayloadBytes.
    void Data(Opening& opening, std::size_t size);
    /// A frame, or several, that the agent must survive.
    void Noise(Random& random);

    void BeginHeader(Random& random);                     ///< a part of one
    void BeginPayload(Random& random, Opening& opening);  ///< a header and a part of the payload
    void TooLarge(Random& random);
    void BadSignature();
    void Throw(Random& random);

private:
    void Frame(std::uint8_t type, std::string_view session, std::string_view payload);
    void Control(const std::vector<lab::Member>& members, std::function<void()> onWritten = {});

    struct Mark {
        std::uint64_t position;
        std::function<void()> onWritten;
    };
    lab::ByteBuffer buffer;
    std::uint64_t queued = 0, written = 0;
    std::deque<Mark> marks;
    bool hasSigned = false;
};

}  // namespace storm
