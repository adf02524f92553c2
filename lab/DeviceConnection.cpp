#include "lab/DeviceConnection.h"

#include <stdexcept>
#include <utility>

#include "lab/Listener.h"
#include "lab/Weakly.h"
#include "lab/wire/Frame.h"
#include "lab/wire/Signing.h"

namespace lab {

using asio::ip::tcp;

namespace {

/// The fault of a "verify"; "" when it has none.
std::string FaultOf(const ControlMessage& verify, const Credentials* credentials) {
    if (verify.Text("method") != "verify") return "no verify but " + Word(verify.Text("method"));
    const std::string device = "verify of " + Word(verify.Text("deviceId"));
    if (!credentials) return device + ", which is not registered";
    if (!verify.IsSignedWith(credentials->password)) return device + " with a bad signature";
    if (verify.Text("username") != credentials->username) return device + " with a wrong username";
    if (verify.Text("version") != "1.0") return device + " for version " + Word(verify.Text("version"));
    return "";
}

}  // namespace

DeviceConnection::DeviceConnection(tcp::socket device, Owner& connectionOwner, const Timings& labTimings,
                                   std::size_t largestPayload, Report& reportOfLab)
    : socket(std::move(device)),
      peer(PeerOf(socket)),
      timer(socket.get_executor(), labTimings.verifyLimit),
      owner(connectionOwner),
      timings(labTimings),
      frameBytes(largestPayload),
      report(reportOfLab) {}

void DeviceConnection::Start() {
    std::error_code ignored;  // the first read reports a device that is lost already
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    timer.async_wait(Weakly(this, &DeviceConnection::OnTimer));
    ReadMore();
}

// A connection gets its large buffer only after the device is verified.
void DeviceConnection::ReadMore() {
    if (reading || state == State::Closed || !blockers.empty()) return;
    reading = true;
    const auto size = state == State::Verifying ? frameHeaderBytes + maxControlBytes : deviceReadBytes;
    socket.async_read_some(asio::buffer(fromDevice->Room(size), size),
                           Weakly(this, &DeviceConnection::OnRead, fromDevice));
}

void DeviceConnection::OnRead(std::error_code error, std::size_t size) {
    if (error) return Stop(error.message());
    fromDevice->Received(size);
    try {
        HandleFrames();
    } catch (const std::exception& fault) {  // a frame is too long, or a control message is unreadable
        Stop(fault.what());
    }
    // Not earlier: handling a frame may call Unblock and so ReadMore, but the buffer is in use until here.
    reading = false;
    ReadMore();
}

void DeviceConnection::HandleFrames() {
    const auto limit = [this] { return state == State::Verifying ? maxControlBytes : maxPayloadBytes; };
    while (state != State::Closed) {
        const auto frame = fromDevice->Next(limit());
        if (!frame) return;
        HandleFrame(*frame);
    }
}

void DeviceConnection::HandleFrame(const FrameReader::View& frame) {
    if (state == State::Verifying) return HandleVerify(frame);
    if (state == State::Farewell) return;
    if (frame.type == dataFrame) return HandleData(frame);
    if (frame.type == controlFrame) return HandleControl(ControlMessage(std::string(frame.payload)));
    if (frame.type == heartbeatFrame || frame.type == reservedFrame) return;
    report.Error(Name() + ": a frame of type " + std::to_string(frame.type));
}

void DeviceConnection::HandleData(const FrameReader::View& frame) {
    const auto session = sessions.find(frame.session);
    if (session != sessions.end()) return session->second->Deliver(frame.payload);
    report.Error(Name() + ": " + std::to_string(frame.payload.size()) + " bytes for session " +
                 Word(frame.session) + ", which there is not");
}

void DeviceConnection::HandleVerify(const FrameReader::View& frame) {
    if (frame.type != controlFrame)
        throw std::invalid_argument("a frame of type " + std::to_string(frame.type) + " before verify");
    const ControlMessage verify{std::string(frame.payload)};
    const std::string id = verify.Text("deviceId");
    const Credentials* credentials = owner.Find(id);
    const std::string fault = FaultOf(verify, credentials);
    if (!fault.empty()) throw std::invalid_argument(fault);
    timer.cancel();
    state = State::Serving;
    deviceId = id;
    password = credentials->password;
    owner.OnVerified(*this);
    ++report.counters.devices;
    report.Event(Name() + " connected");
    SendControl(Welcome("Welcome to the lab"));
}

void DeviceConnection::HandleControl(const ControlMessage& message) {
    if (!message.IsSignedWith(password)) throw std::invalid_argument("a message with a bad signature");
    const std::string method = message.Text("method"), id = message.Text("session");
    const auto session = sessions.find(id);
    if (method != "connected-session" && method != "disconnect-session") {
        report.Error(Name() + ": unknown method " + Word(method));
    } else if (session == sessions.end()) {
        report.Error(Name() + ": " + method + " for " + Word(id) + ", which there is not");
    } else if (method == "disconnect-session") {
        const auto ended = session->second;  // keeps it alive, because this call may remove it from the table
        ended->Finish();
    }
}

void DeviceConnection::OpenSession(const std::string& id, const Route& route, tcp::socket client) {
    if (toDevice->Size() > deviceBacklogLimitBytes)
        return report.Error("client of " + Word(route.deviceId) + " " + Word(route.service) +
                            " turned away: the device takes nothing");
    DeviceLink& link = *this;
    const auto session = std::make_shared<Session>(id, route, std::move(client), link, timings, report);
    sessions[id] = session;
    SendControl(NewSession(id, route.remotePort));
    session->Start();
}

void DeviceConnection::SendEndSession(const std::shared_ptr<Session>& session) {
    SendControl(EndSession(session->Id()));
    endsOnTheWay.emplace_back(toDevice->Queued(), session);
}

void DeviceConnection::SendControl(const std::vector<Member>& unsignedMessage) {
    if (state == State::Closed) return;
    const std::string message = Sign(password, unsignedMessage);
    const auto header = EncodeHeader(controlFrame, message.size(), noSession);
    Frames().Append({header.data(), header.size()});
    Frames().Append(message);
    Flush();
}

// Not at once, because more frames probably follow; all of them leave in one write.
void DeviceConnection::Flush() {
    if (state == State::Closed || std::exchange(writing, true)) return;
    asio::post(socket.get_executor(), [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->Write();
    });
}

void DeviceConnection::Write() {
    if (state == State::Closed) return;
    const auto bytes = toDevice->Next();
    socket.async_write_some(asio::buffer(bytes.data(), bytes.size()),
                            Weakly(this, &DeviceConnection::OnWritten, toDevice));
}

void DeviceConnection::OnWritten(std::error_code error, std::size_t size) {
    if (state == State::Closed) return;
    if (error) return Stop(error.message());
    toDevice->Sent(size);
    TellWhoWaits();
    if (toDevice->Size() > 0) return Write();
    writing = false;
    if (state == State::Farewell)
        socket.shutdown(tcp::socket::shutdown_send, error);  // the device closes when it has read all
}

void DeviceConnection::TellWhoWaits() {
    for (; !endsOnTheWay.empty() && endsOnTheWay.front().first <= toDevice->Left();
         endsOnTheWay.pop_front()) {
        if (const auto session = endsOnTheWay.front().second.lock()) session->OnEndSent();
    }
    for (std::size_t count = waiting.size(); count > 0 && HasRoom(); --count) {
        const auto session = waiting.front().lock();
        waiting.pop_front();
        if (session) session->ReadMore();
    }
}

void DeviceConnection::Unblock(const std::string& id) {
    blockers.erase(id);
    lastBlocked = std::chrono::steady_clock::now();
    ReadMore();
}

std::chrono::steady_clock::time_point DeviceConnection::LastBlocked() const {
    return blockers.empty() ? lastBlocked : std::chrono::steady_clock::now();
}

void DeviceConnection::Over(Session& session) {
    sessions.erase(session.Id());
    if (state == State::Closed && sessions.empty()) owner.OnOver(*this);
}

void DeviceConnection::Replace() {
    SendControl(Conflict());
    state = State::Farewell;
    timer.expires_after(timings.farewell);
    timer.async_wait(Weakly(this, &DeviceConnection::OnTimer));
    Leave("replaced by a newer connection");
}

void DeviceConnection::OnTimer(std::error_code error) {
    if (!error) Stop("no verify in time");
}

void DeviceConnection::Stop(const std::string& reason) {
    if (state == State::Closed) return;
    const State before = std::exchange(state, State::Closed);
    socket.close();
    timer.cancel();
    if (before == State::Verifying) report.Error("connection from " + peer + ": " + reason);
    if (before == State::Serving) Leave(reason);
    if (sessions.empty()) owner.OnOver(*this);
}

void DeviceConnection::Leave(const std::string& reason) {
    --report.counters.devices;
    report.Event(Name() + " disconnected: " + reason);
    owner.OnLost(*this);
    FinishSessions();
}

void DeviceConnection::FinishSessions() {
    for (const auto& [id, session] : std::map(sessions)) session->Finish();
}

void DeviceConnection::StopSessions() {
    for (const auto& [id, session] : std::map(sessions)) session->Stop();
}

}  // namespace lab
