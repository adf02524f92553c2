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

// Bytes that the kernel still holds have not left, see tcp(7). When it does not tell, all bytes that it took
// count.
std::uint64_t FrameWriter::Departed() const {
    int unacknowledged = 0;
    if (ioctl(socket.native_handle(), SIOCOUTQ, &unacknowledged) != 0) return written;
    return written - static_cast<std::uint64_t>(unacknowledged);
}

// The write is posted as its completion would be: in the log it comes behind everything that is due before
// it.
void FrameWriter::SendAsync() {
    LogFront();
    asio::post(ioContext, [this] { WriteQueue(); });
}

void FrameWriter::LogFront() const {
    LogWrite("TunnelClient", 392, logVerbose, "Inside SendAsync, type %d, length %d", queue.front().type,
             static_cast<int>(queue.front().data.size()));
}

// Writes on for as long as the socket takes it, and only then lets the queue fill again.
void FrameWriter::WriteQueue() {
    while (!queue.empty())
        if (!WriteFrames()) return;
    owner.OnQueueEmpty();
}

// One call. @return whether the socket took all that it was offered
bool FrameWriter::WriteFrames() {
    std::array<HeaderBytes, maxFrames> headers;  // NOLINT: each is written before it is used
    std::array<asio::const_buffer, 2 * maxFrames> pieces;
    for (std::size_t i = 0; i < std::min(queue.size(), maxFrames); ++i) {
        headers[i] = EncodeHeader(queue[i]);
        pieces[2 * i] = asio::buffer(headers[i]);
        pieces[2 * i + 1] = asio::buffer(queue[i].data);
    }
    const std::size_t ofHeader = std::min(sentBytes, headerBytes);
    pieces[0] += ofHeader;
    pieces[1] += sentBytes - ofHeader;
    std::error_code error;
    const std::size_t size = socket.send(pieces, 0, error);
    const bool isAll = size == asio::buffer_size(pieces);
    Finish(size);
    if (error && error != asio::error::would_block) {
        OnSendError(error);
    } else if (!isAll) {
        WaitForSocket();
    }
    return isAll;
}

void FrameWriter::WaitForSocket() {
    ++waits;
    socket.async_wait(asio::ip::tcp::socket::wait_write, [this](std::error_code error) {
        if (error) return OnSendError(error);
        WriteQueue();
    });
}

// The front stays in the queue, so that whatever is queued later starts no write.
void FrameWriter::OnSendError(std::error_code error) {
    LogWrite("TunnelClient", 411, logError, "TunnelClient::SendAsync: (%d) %s", error.value(),
             error.message().c_str());
    owner.Stop();
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
