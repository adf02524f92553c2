#include "soak/Endpoint.h"

#include <algorithm>
#include <utility>

namespace soak {

using asio::ip::tcp;

Endpoint::Endpoint(tcp::socket connected, const EndPlan& endPlan, const KeyedStream& outgoingStream,
                   const KeyedStream& incomingStream, EndRecord& endRecord, std::function<void()> overHandler)
    : socket(std::move(connected)),
      pauseTimer(socket.get_executor()),
      stallTimer(socket.get_executor()),
      resetTimer(socket.get_executor()),
      plan(endPlan),
      out(outgoingStream),
      in(incomingStream),
      record(endRecord),
      onOver(std::move(overHandler)),
      pieces(plan.bytesToSend) {}

void Endpoint::Start(std::uint64_t alreadyReceived) {
    record.appeared = true;
    record.received = alreadyReceived;
    if (plan.resetAfter.count() > 0) {
        resetTimer.expires_after(plan.resetAfter);
        resetTimer.async_wait(
            [self = shared_from_this()](std::error_code error) { self->OnResetTime(error); });
    }
    Send();
    Receive();
}

void Endpoint::Send() {
    if (!socket.is_open() || record.sawEnd) return;
    if (record.sent == plan.bytesToSend) return OnAllSent();
    const std::uint64_t wanted =
        record.sent == 0 ? KeyedStream::numberBytes : Draw(pieces, 1, plan.maxPieceBytes);
    const auto size = static_cast<std::size_t>(std::min(wanted, plan.bytesToSend - record.sent));
    out.Fill(record.sent, outgoing.data(), size);
    socket.async_write_some(asio::buffer(outgoing.data(), size),
                            [self = shared_from_this()](std::error_code error, std::size_t count) {
                                self->OnSent(error, count);
                            });
}

// A failed write does not end it, because there is still something to read: at least the error.
void Endpoint::OnSent(std::error_code error, std::size_t size) {
    record.sent += size;  // even when the socket has been closed meanwhile: the kernel had taken them
    if (error || !socket.is_open()) return;
    record.lastSent = Clock::now();
    if (plan.pause.count() == 0 || Draw(pieces, 0, 7) > 0) return Send();
    pauseTimer.expires_after(plan.pause);
    pauseTimer.async_wait([self = shared_from_this()](std::error_code failed) { self->OnPaused(failed); });
}

void Endpoint::OnPaused(std::error_code error) {
    if (!error) Send();
}

void Endpoint::OnAllSent() {
    if (plan.finish == Finish::Stay) return;
    (plan.finish == Finish::Shutdown ? record.shutDown : record.closed) = true;
    record.finishedAt = Clock::now();
    if (plan.finish == Finish::Close) return Close();
    std::error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
}

void Endpoint::Receive() {
    if (!socket.is_open()) return;
    if (plan.Stalls() && record.received >= plan.stallAt) {
        stalling = record.hasStalled = true;
        stallTimer.expires_after(std::exchange(plan.stall, {}));
        return stallTimer.async_wait(
            [self = shared_from_this()](std::error_code error) { self->OnStallOver(error); });
    }
    socket.async_read_some(asio::buffer(incoming),
                           [self = shared_from_this()](std::error_code error, std::size_t size) {
                               self->OnReceived(error, size);
                           });
}

void Endpoint::OnReceived(std::error_code error, std::size_t size) {
    record.wrong += in.CountWrong(record.received, {incoming.data(), size});
    record.received += size;
    if (size > 0) record.lastReceived = Clock::now();
    if (!socket.is_open()) return;
    if (!error) return Receive();
    record.sawEnd = true;
    Close();
}

void Endpoint::OnStallOver(std::error_code error) {
    stalling = false;
    record.stalledUntil = Clock::now();
    if (!error) Receive();
}

void Endpoint::OnResetTime(std::error_code error) {
    if (error || !socket.is_open()) return;
    record.reset = true;
    record.finishedAt = Clock::now();
    std::error_code ignored;
    socket.set_option(asio::socket_base::linger(true, 0), ignored);
    Close();
}

void Endpoint::Close() {
    record.over = true;
    record.endedAt = Clock::now();
    std::error_code ignored;
    socket.close(ignored);
    for (auto* timer : {&pauseTimer, &stallTimer, &resetTimer}) timer->cancel();
    stalling = false;
    onOver();
}

}  // namespace soak
