#pragma once

#include <asio.hpp>
#include <cstddef>
#include <memory>
#include <string_view>

#include "tunnel/TunnelMessage.h"

namespace nox::tunnel_client {

/// Reads frames from the tunnel server, as many at a time as have arrived, and hands them out where they lie.
///
///   ListenToTunnelServer -> Read -> OnRead -> HandleFrames (HandleFrame, ...) -> Read or HandleFrames ...
///
/// One read is under way at most. All frames of a batch are handed out in one turn of the event loop, and
/// their memory is used again after it.
class FrameReader {
public:
    /// Acts on the frames.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// @param payload valid until OnBatchOver returns
        /// @return whether to read the next frame
        virtual bool HandleMessage(const FrameHeader& header, std::string_view payload) = 0;
        /// The memory of the payloads handed out so far will be used again.
        virtual void OnBatchOver() = 0;
        /// Nothing more will be read: the connection broke, or announced too large a frame. It has been
        /// logged.
        virtual void Stop() = 0;
    };

    /// @param io, tunnel, frameOwner not owned, outlive the reader and its operations
    FrameReader(asio::io_context& io, asio::ip::tcp::socket& tunnel, Owner& frameOwner);
    ~FrameReader();

    /// Starts reading; goes on until the owner ends it or the socket fails.
    void ListenToTunnelServer();

private:
    // With more of either in a batch, services would wait too long while the server floods.
    static constexpr std::size_t readBytes = 65536;
    static constexpr int maxBatch = 16;      // frames
    static constexpr int wakeBytes = 16384;  // of a large frame's rest; fits any socket's receive buffer
    static constexpr std::size_t bufferBytes = headerBytes + maxPayloadBytes + readBytes;

    void Read();
    std::size_t Missing() const { return hasHeader ? FrameSize() - Unread() : 0; }
    void SetWakeBytes(int bytes);
    void MakeRoom(std::size_t size);
    void OnRead(std::error_code error, std::size_t size);
    void HandleFrames();
    bool HasFrame();
    void HandleFrame();
    void ReadHeader();
    void LogReadError(std::error_code error) const;
    void GuardBuffer();
    std::size_t Unread() const { return end - begin; }
    bool IsRefused() const { return hasHeader && header.length > maxPayloadBytes; }
    std::size_t FrameSize() const { return headerBytes + header.length; }

    asio::io_context& ioContext;
    asio::ip::tcp::socket& socket;
    Owner& owner;
    std::unique_ptr<char[]> buffer;  // bufferBytes; a page costs memory from its first use on
    int wakesAt = 1;                 // bytes that arrive before the kernel wakes the agent
    std::size_t begin = 0, end = 0;  // of the bytes that have been read and not been handed out
    bool hasHeader = false;          // the frame at `begin` has a header, decoded and logged
    bool isOver = false;             // nothing more is read or handed out
    FrameHeader header;
};

}  // namespace nox::tunnel_client
