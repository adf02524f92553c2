#include "lab/Session.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <utility>

#include "lab/Weakly.h"
#include "lab/wire/Frame.h"

namespace lab {

using asio::ip::tcp;

Session::Session(std::string sessionId, const Route& sessionRoute, tcp::socket client, DeviceLink& deviceLink,
                 const Timings& labTimings, Report& reportOfLab)
    : id(std::move(sessionId)),
      route(sessionRoute),
      socket(std::move(client)),
      quietTimer(socket.get_executor()),
      stallTimer(socket.get_executor()),
      link(deviceLink),
      timings(labTimings),
      report(reportOfLab) {}

void Session::Start() {
    ++report.counters.sessions;
    ++report.counters.opened;
    report.Event("session " + id + " " + Word(route.deviceId) + " " + Word(route.service) + " opened");
    socket.non_blocking(true);
    OnReadable({});  // bytes that the client has sent already leave together with the news of its session
}

// The wait needs no buffer, so a thousand idle clients cost nothing; the bytes of busy ones are read straight
// into the frames that go to the device. Once the session is not open any more, the client's bytes are read
// and dropped; otherwise a client that is stuck with writing would never read the bytes that we still have
// for it.
void Session::ReadMore() {
    if (reading || clientDone || state == State::Closed) return;
    if (state == State::Open && !link.HasRoom()) return link.WaitForRoom(shared_from_this());
    reading = true;
    socket.async_wait(tcp::socket::wait_read, Weakly(this, &Session::OnReadable));
}

void Session::OnReadable(std::error_code error) {
    reading = false;
    if (clientDone || state == State::Closed) return;
    if (state == State::Open && !link.HasRoom()) return link.WaitForRoom(shared_from_this());
    if (!error) error = ReadFrames();
    if (error == asio::error::eof) return OnClientDone();
    if (error && error != asio::error::would_block) return LoseClient("client");
    ReadMore();
}

// One read fills several frames if they are small; otherwise the lab would be slower than the devices that it
// tests.
std::error_code Session::ReadFrames() {
    const std::size_t frameBytes = link.FrameBytes();
    const std::size_t stride = frameHeaderBytes + frameBytes;
    std::array<asio::mutable_buffer, 16> payloads;
    const std::size_t count = std::min(payloads.size(), maxPayloadBytes / frameBytes);
    char* const frames = link.Frames().Reserve(count * stride);
    for (std::size_t i = 0; i < count; ++i)
        payloads[i] = asio::buffer(frames + i * stride + frameHeaderBytes, frameBytes);
    std::error_code error;
    const auto size = socket.read_some(payloads, error);
    if (size == 0 || state != State::Open) return error;
    std::size_t done = 0;
    for (char* frame = frames; done < size; frame += stride) {
        const auto header = EncodeHeader(dataFrame, std::min(frameBytes, size - done), id);
        std::copy(header.begin(), header.end(), frame);
        done += std::min(frameBytes, size - done);
        link.Frames().Commit(frameHeaderBytes);
    }
    link.Frames().Commit(size);
    link.Flush();
    sentToDevice += size;
    report.counters.toDevice += size;
    return error;
}

void Session::OnClientDone() {
    clientDone = true;
    if (state == State::Open) return End(State::Ending, "client");
    if (state == State::Draining) Close();
}

void Session::LoseClient(const char* who) {
    clientDone = true;
    std::error_code ignored;
    socket.close(ignored);
    SetBlocking(false);
    if (state == State::Open) return End(State::Discarding, who);
    if (state == State::Ending) return void(state = State::Discarding);
    Close();
}

// A client that has closed its socket refuses our bytes, but those that it sent before are still there to be
// read. They belong to the device; the read that finds their end then ends the session.
void Session::StopWriting() {
    if (state != State::Open) return LoseClient("client");
    clientRefuses = true;
    toClient = std::make_shared<Outbox>();
    writing = false;
    SetBlocking(false);
}

void Session::End(State next, const char* who) {
    state = next;
    endedBy = who;
    link.SendEndSession(shared_from_this());
    WatchForStall();
}

void Session::OnEndSent() {
    if (state == State::Ending || state == State::Discarding) WaitForQuiet(Clock::now());
}

void Session::WaitForQuiet(Clock::time_point since) {
    quietTimer.expires_at(since + timings.quiet);
    quietTimer.async_wait(Weakly(this, &Session::OnQuietOver));
}

// While the device was blocked, by whichever session, our bytes may have been held up behind those of others.
void Session::OnQuietOver(std::error_code error) {
    if (error || state == State::Closed || state == State::Finishing) return;
    const auto now = Clock::now();
    if (OwesClient(now)) return WaitForQuiet(now);
    const auto since =
        state == State::Draining ? now - timings.quiet : std::max(lastArrival, link.LastBlocked());
    since + timings.quiet <= now ? Close() : WaitForQuiet(since);
}

// After our close, the next byte that the client sends would reset the connection, and the client would lose
// all bytes that it has not read yet. So we wait for a client that still takes bytes, and for one that takes
// none as long as for every other. The stall timer watches over bytes that are still in the outbox.
bool Session::OwesClient(Clock::time_point now) {
    std::error_code lost;
    socket.remote_endpoint(lost);
    if (lost) return false;
    if (toClient->Size() > 0) return true;
    int unacknowledged = 0;
    if (ioctl(socket.native_handle(), SIOCOUTQ, &unacknowledged) != 0 || unacknowledged == 0) return false;
    if (std::exchange(lastUnacknowledged, unacknowledged) != unacknowledged) lastProgress = now;
    if (now - lastProgress < timings.stall) return true;
    LogStalled();
    return false;
}

void Session::LogStalled() { report.Error("session " + id + ": its client takes nothing, dropped"); }

void Session::Deliver(std::string_view bytes) {
    gotFromDevice += bytes.size();
    report.counters.fromDevice += bytes.size();
    if (state != State::Open) lastArrival = Clock::now();
    if (clientRefuses || (state != State::Open && state != State::Ending)) return;
    if (toClient->Size() == 0) lastProgress = Clock::now();
    toClient->Back().Append(bytes);
    if (toClient->Size() > clientBacklogBytes) SetBlocking(true);
    if (state == State::Ending) WatchForStall();
    if (std::exchange(writing, true)) return;
    // Not at once, because the device's next frames are probably there already; all of them leave in one
    // write.
    asio::post(socket.get_executor(), [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->Write();
    });
}

void Session::Write() {
    if (!socket.is_open()) return;
    const auto bytes = toClient->Next();
    socket.async_write_some(asio::buffer(bytes.data(), bytes.size()),
                            Weakly(this, &Session::OnWritten, toClient));
}

void Session::OnWritten(std::error_code error, std::size_t size) {
    if (!socket.is_open()) return;
    if (error) return StopWriting();
    toClient->Sent(size);
    lastProgress = Clock::now();
    if (toClient->Size() < clientBacklogBytes / 2) SetBlocking(false);
    if (toClient->Size() > 0) return Write();
    writing = false;
    if (state == State::Finishing) OnAllDelivered();
}

void Session::Finish() {
    if (state == State::Discarding) return Close();
    if (state != State::Open && state != State::Ending) return;
    if (state == State::Open) endedBy = "device";
    state = State::Finishing;
    WatchForStall();
    ReadMore();
    if (!writing) OnAllDelivered();
}

// The socket stays open until the client's own end, for the reason that OwesClient tells.
void Session::OnAllDelivered() {
    std::error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
    if (clientDone) return Close();
    state = State::Draining;
    WaitForQuiet(Clock::now());
}

void Session::SetBlocking(bool blocks) {
    if (std::exchange(blocking, blocks) == blocks) return;
    if (!blocks) return link.Unblock(id);
    link.Block(id);
    WatchForStall();
}

void Session::WatchForStall() {
    if (toClient->Size() == 0 || std::exchange(watching, true)) return;
    stallTimer.expires_at(std::max(lastProgress + timings.stall, Clock::now() + timings.stall / 2));
    stallTimer.async_wait(Weakly(this, &Session::OnStallCheck));
}

// A client for which nobody waits may take as long as it likes, because somebody may have stopped it in a
// debugger.
void Session::OnStallCheck(std::error_code error) {
    watching = false;
    if (error || !socket.is_open()) return;
    const bool isInTheWay = state != State::Open || (blocking && link.HasOthers());
    if (isInTheWay && toClient->Size() > 0 && Clock::now() - lastProgress >= timings.stall) {
        LogStalled();
        return LoseClient("lab");
    }
    if (state != State::Open || blocking) WatchForStall();
}

void Session::Stop() {
    if (state != State::Closed) Close();
}

void Session::Close() {
    state = State::Closed;
    std::error_code ignored;
    socket.close(ignored);
    quietTimer.cancel();
    stallTimer.cancel();
    SetBlocking(false);
    --report.counters.sessions;
    report.Event("session " + id + " " + Word(route.deviceId) + " " + Word(route.service) + " closed by " +
                 endedBy + ", " + std::to_string(sentToDevice) + " bytes to device, " +
                 std::to_string(gotFromDevice) + " bytes from device");
    link.Over(*this);
}

}  // namespace lab
