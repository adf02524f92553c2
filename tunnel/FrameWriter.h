#pragma once

#include <array>
#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "tunnel/ReadTurns.h"
#include "tunnel/TunnelMessage.h"

namespace nox::tunnel_client {

/// Writes frames to the tunnel server in the order in which they were queued.
///
///   QueueMessage -> SendAsync -> WriteQueue (WriteFrames, ...) <-> WaitForSocket
///
/// Nothing is written inside the call that queues it. Each call to the socket offers it several frames; calls
/// follow one another until it takes no more. After an error nothing is written any more.
class FrameWriter : public ReadTurns::Line {
public:
    /// Is told which frames have been written.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// The socket has taken the whole frame, which leaves the queue now; its payload may be moved out.
        virtual void OnFrameSent(TunnelMessage& frame) = 0;
        /// No frame waits any more.
        virtual void OnQueueEmpty() = 0;
        /// Nothing more will be written. It has been logged.
        virtual void Stop() = 0;
    };

    /// @param io, tunnel, frameOwner not owned, outlive the writer and its operations
    FrameWriter(asio::io_context& io, asio::ip::tcp::socket& tunnel, Owner& frameOwner)
        : ioContext(io), socket(tunnel), owner(frameOwner) {}

    /// Takes frames in whatever state the connection is: they are written until its socket closes.
    void QueueMessage(TunnelMessage frame);

    std::size_t FramesWaiting() const override { return queue.size(); }
    std::uint64_t Waits() const override { return waits; }
    std::uint64_t Departed() const override;

private:
    static constexpr std::size_t maxFrames = 16;  // in one call

    void SendAsync();
    void LogFront() const;
    void WriteQueue();
    bool WriteFrames();
    void WaitForSocket();
    void OnSendError(std::error_code error);
    void Finish(std::size_t size);
    void FinishFront();

    asio::io_context& ioContext;
    asio::ip::tcp::socket& socket;
    Owner& owner;
    std::deque<TunnelMessage> queue;  // the front is being written and stays until it is
    std::size_t sentBytes = 0;        // of the front, header included
    std::uint64_t written = 0;        // of all frames
    std::uint64_t waits = 0;
};

}  // namespace nox::tunnel_client
