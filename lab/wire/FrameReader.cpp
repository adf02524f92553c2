#include "lab/wire/FrameReader.h"

namespace lab {

std::optional<FrameReader::View> FrameReader::Next(std::size_t maxPayload) {
    const std::string_view bytes = buffer.Bytes();
    if (bytes.size() < frameHeaderBytes) return std::nullopt;
    const DecodedHeader header = DecodeHeader(bytes.data());
    if (header.payloadBytes > maxPayload)
        throw std::length_error("a frame of " + std::to_string(header.payloadBytes) + " bytes");
    const std::size_t size = frameHeaderBytes + header.payloadBytes;
    if (bytes.size() < size) return std::nullopt;
    buffer.Consume(size);  // the bytes stay where they are until Room is called
    return View{header.type, header.session, bytes.substr(frameHeaderBytes, header.payloadBytes)};
}

}  // namespace lab
