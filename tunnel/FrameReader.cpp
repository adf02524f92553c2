#include "tunnel/FrameReader.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "log/Log.h"

namespace nox::tunnel_client {

FrameReader::FrameReader(asio::io_context& io, asio::ip::tcp::socket& tunnel, Owner& frameOwner)
    : ioContext(io), socket(tunnel), owner(frameOwner), buffer(new char[bufferBytes]) {}

FrameReader::~FrameReader() { ASAN_UNPOISON_MEMORY_REGION(buffer.get(), bufferBytes); }

void FrameReader::ListenToTunnelServer() {
    LogWrite("TunnelClient", 162, logVerbose, "Listening to tunnel server");
    Read();
}

// Of a large frame the rest and the next header, so that the frame after it need not be moved in the buffer.
void FrameReader::Read() {
    const std::size_t size = std::max(Missing() + headerBytes, readBytes);
    SetWakeBytes(Missing() > wakeBytes ? wakeBytes : 1);
    MakeRoom(size);
    ASAN_UNPOISON_MEMORY_REGION(&buffer[end], size);
    socket.async_read_some(asio::buffer(&buffer[end], size),
                           [this](std::error_code error, std::size_t got) { OnRead(error, got); });
}

// A frame is of no use before it is complete, and a slow line would wake the agent for each of its packets.
// Never more than is missing, or the frame's end would wait for the frame after it. The end of the connection
// wakes it in any case, see SO_RCVLOWAT in socket(7). Without the option everything still works.
void FrameReader::SetWakeBytes(int bytes) {
    if (std::exchange(wakesAt, bytes) == bytes) return;
    std::error_code ignored;
    socket.set_option(asio::socket_base::receive_low_watermark(bytes), ignored);
}

// An empty buffer does not start again at its front either: bytes that were handed out stay poisoned for a
// while.
void FrameReader::MakeRoom(std::size_t size) {
    if (end + size <= bufferBytes) return;
    ASAN_UNPOISON_MEMORY_REGION(buffer.get(), bufferBytes);
    std::memmove(buffer.get(), &buffer[begin], Unread());
    end -= begin;
    begin = 0;
    GuardBuffer();
}

// The address sanitizer reports whoever looks at a payload after its batch.
void FrameReader::GuardBuffer() {
    ASAN_POISON_MEMORY_REGION(buffer.get(), bufferBytes);
    ASAN_UNPOISON_MEMORY_REGION(&buffer[begin], Unread());
}

void FrameReader::OnRead(std::error_code error, std::size_t size) {
    if (error) {
        LogReadError(error);
        return owner.Stop();
    }
    end += size;
    HandleFrames();
}

void FrameReader::HandleFrames() {
    int frames = 0;
    for (; frames < maxBatch && HasFrame(); ++frames) HandleFrame();
    owner.OnBatchOver();
    GuardBuffer();
    if (IsRefused()) return owner.Stop();
    if (isOver) return;
    if (frames < maxBatch) return Read();
    asio::post(ioContext, [this] { HandleFrames(); });
}

bool FrameReader::HasFrame() {
    if (!isOver && !hasHeader && Unread() >= headerBytes) ReadHeader();
    return hasHeader && !IsRefused() && Unread() >= FrameSize();
}

// A frame that is too large is refused before its payload has come.
void FrameReader::ReadHeader() {
    HeaderBytes bytes;
    std::copy_n(&buffer[begin], bytes.size(), bytes.begin());
    header = DecodeHeader(bytes);
    hasHeader = true;
    LogWrite("TunnelClient", 175, logVerbose, "Header, type %d, len %d", header.type,
             static_cast<int>(header.length));
    if (IsRefused())
        LogWrite("TunnelClient", 178, logError, "Tunnel message size too large: %d",
                 static_cast<int>(header.length));
}

void FrameReader::HandleFrame() {
    const std::string_view payload(&buffer[begin + headerBytes], header.length);
    begin += FrameSize();
    hasHeader = false;
    isOver = !owner.HandleMessage(header, payload);
    if (!isOver) LogWrite("TunnelClient", 162, logVerbose, "Listening to tunnel server");
}

void FrameReader::LogReadError(std::error_code error) const {
    if (hasHeader) {
        LogWrite("TunnelClient", 193, logError, "ListenToTunnelServer - read data: (%d) %s", error.value(),
                 error.message().c_str());
    } else {
        LogWrite("TunnelClient", 168, logError, "ListenToTunnelServer - read header: (%d) %s", error.value(),
                 error.message().c_str());
    }
}

}  // namespace nox::tunnel_client
