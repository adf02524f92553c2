#include "tunnel/FrameWriter.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <utility>

#include "log/Log.h"

namespace nox::tunnel_client {

void FrameWriter::QueueMessage(TunnelMessage frame) {
    queue.push_back(std::move(frame));
    if (queue.size() == 1) asio::post(ioContext, [this] { SendAsync(); });
}

// What the kernel still holds has not left, see tcp(7); without that knowledge, what it has taken counts.
std::uint64_t FrameWriter::Departed() const {
    int unacknowledged = 0;
    if (ioctl(socket.native_handle(), SIOCOUTQ, &unacknowledged) != 0) return written;
    return written - static_cast<std::uint64_t>(unacknowledged);
}

void FrameWriter::SendAsync() {
    LogFront();
    asio::post(ioContext, [this, sent = Send()] { OnSent(sent); });
}

void FrameWriter::LogFront() const {
    LogWrite("TunnelClient", 392, logVerbose, "Inside SendAsync, type %d, length %d", queue.front().type,
             static_cast<int>(queue.front().data.size()));
}

FrameWriter::Sent FrameWriter::Send() {
    std::array<HeaderBytes, maxFrames> headers;  // NOLINT: each is written before it is used
    GatherList<2 * maxFrames> pieces;
    std::size_t skipped = sentBytes;
    const auto add = [&](asio::const_buffer piece) {
        const std::size_t sent = std::exchange(skipped, skipped - std::min(skipped, piece.size())) - skipped;
        pieces.Add(piece + sent);
    };
    for (std::size_t i = 0; i < std::min(queue.size(), maxFrames); ++i) {
        headers[i] = EncodeHeader(queue[i]);
        add(asio::buffer(headers[i]));
        add(asio::buffer(queue[i].data));
    }
    Sent sent;
    sent.size = socket.send(pieces, 0, sent.error);
    sent.isAll = sent.size == pieces.Bytes();
    if (sent.error == asio::error::would_block) sent.error.clear();
    return sent;
}

// Sends on for as long as the socket takes it, and only then lets the queue fill again.
void FrameWriter::OnSent(Sent sent) {
    for (;; sent = Send()) {
        if (sent.error) return OnSendError(sent.error);
        Finish(sent.size);
        if (queue.empty()) return owner.OnQueueEmpty();
        if (!sent.isAll) return WaitForSocket();
    }
}

void FrameWriter::WaitForSocket() {
    ++waits;
    socket.async_wait(asio::ip::tcp::socket::wait_write, [this](std::error_code error) {
        if (error) return OnSendError(error);
        OnSent(Send());
    });
}

// The front stays in the queue, so that whatever is queued later starts no write.
void FrameWriter::OnSendError(std::error_code error) {
    LogWrite("TunnelClient", 411, logError, "TunnelClient::SendAsync: (%d) %s", error.value(),
             error.message().c_str());
    owner.OnSendFailed();
}

void FrameWriter::Finish(std::size_t size) {
    written += size;
    sentBytes += size;
    while (!queue.empty() && sentBytes >= FrameBytes(queue.front())) {
        sentBytes -= FrameBytes(queue.front());
        FinishFront();
    }
}

void FrameWriter::FinishFront() {
    LogWrite("TunnelClient", 415, logVerbose, "Finished upload, length %d",
             static_cast<int>(FrameBytes(queue.front())));
    owner.OnFrameSent(queue.front());
    queue.pop_front();
    if (!queue.empty()) return LogFront();
    LogWrite("TunnelClient", 436, logVerbose, "skipping SendAsync, sendQueue is empty");
}

}  // namespace nox::tunnel_client
