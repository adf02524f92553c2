#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "lab/Buffers.h"
#include "lab/wire/Frame.h"

namespace lab {

/// Takes whole frames out of a stream of bytes that comes in pieces of any size.
class FrameReader {
public:
    struct View {
        std::uint8_t type;
        std::string_view session, payload;
    };

    /// Room to read into; Received tells how much came.
    char* Room(std::size_t bytes) { return buffer.Reserve(bytes); }
    void Received(std::size_t bytes) { buffer.Commit(bytes); }

    /// The next frame, if all of it is there. It is valid until Room is called.
    /// @throws std::length_error as soon as a header announces more than `maxPayload` bytes
    std::optional<View> Next(std::size_t maxPayload);

private:
    ByteBuffer buffer;
};

}  // namespace lab
