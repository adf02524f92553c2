#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "lab/Buffers.h"
#include "lab/wire/Frame.h"

namespace lab {

/// Takes whole frames out of a stream of bytes that arrives in pieces of any size.
class FrameReader {
public:
    struct View {
        std::uint8_t type;
        std::string_view session, payload;
    };

    /// Room to read into; Received then adds the bytes that were read.
    char* Room(std::size_t bytes) { return buffer.Reserve(bytes); }
    void Received(std::size_t bytes) { buffer.Commit(bytes); }

    /// The next frame, or nothing until all of it has arrived. Valid until Room is called.
    /// @throws std::length_error as soon as a header announces more than `maxPayload` bytes
    std::optional<View> Next(std::size_t maxPayload);

private:
    ByteBuffer buffer;
};

}  // namespace lab
