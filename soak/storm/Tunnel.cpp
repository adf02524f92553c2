#include "soak/storm/Tunnel.h"

#include <algorithm>
#include <utility>

namespace storm {

using asio::ip::tcp;

namespace {

constexpr int callsPerTurn = 8;
constexpr std::size_t composedAhead = 262144;
constexpr std::size_t readBytes = 262144;
constexpr milliseconds tick{1};
constexpr std::uint64_t framesPerNoise = 40;

}  // namespace

Tunnel::Tunnel(asio::io_context& loop, tcp::socket accepted, std::uint64_t tunnelNumber, Surroundings& storm)
    : io(loop),
      socket(std::move(accepted)),
      number(tunnelNumber),
      surroundings(storm),
      random(soak::Mixed(storm.seed + tunnelNumber)),
      plan(DrawTunnel(random)),
      hearing([this](const std::string& text) { Fault(text); }),
      sessions(loop, number, storm, random, speech, hearing) {}

void Tunnel::Start() {
    socket.non_blocking(true);
    lifeEnd = Clock::now() + plan.life;
    if (plan.breaks == Break::Silence) {
        state = State::Breaking;
        BreakNow();
    } else {
        speech.Welcome();
    }
    ChangeMoods(Clock::now());
    Tick({});
}

// ---- The server's decisions

void Tunnel::Tick(std::error_code error) {
    if (error || state == State::Gone) return;
    const auto now = Clock::now();
    ChangeMoods(now);
    if (state == State::Speaking) sessions.OpenSometimes(plan.sessionsAtOnce);
    if (state <= State::Draining) sessions.EndSome(now);
    Advance(now);
    if (!writeUnderWay) Write();
    if (!readUnderWay) Read();
    const std::uint64_t received = Received();
    if (std::exchange(progress, received) != received) lastProgress = now;
    timer.expires_after(tick);
    timer.async_wait(Handler(&Tunnel::Tick));
}

void Tunnel::ChangeMoods(Clock::time_point now) {
    if (now >= writeMoodEnd && state <= State::Draining) {
        writeMood = DrawWriteMood(random);
        writeMoodEnd = now + writeMood.length;
    }
    if (now < readMoodEnd) return;
    readMood = DrawReadMood(random);
    readMoodEnd = now + readMood.length;
}

void Tunnel::Advance(Clock::time_point now) {
    if (Received() >= plan.mostBytes || sessions.Openings().size() == Sessions::most) EndSoon();
    if (now < lifeEnd) return;
    if (state == State::Speaking && plan.isDrained) state = State::Draining;
    if (state == State::Speaking || (state == State::Draining && sessions.NoneLives())) BeginBreak();
}

// ---- The end

void Tunnel::BeginBreak() {
    state = State::Breaking;
    writeMood = {wholeBuffer, milliseconds(0), milliseconds(0)};
    writeAfter = {};
    ComposePart();
}

void Tunnel::ComposePart() {
    switch (plan.breaks) {
        case Break::TooLarge: return speech.TooLarge(random);
        case Break::BadSignature: return speech.BadSignature();
        case Break::Throw: return speech.Throw(random);
        default: break;
    }
    if (plan.place == Place::InHeader) return speech.BeginHeader(random);
    if (plan.place == Place::InPayload) sessions.BeginPayload();
}

// To be called when everything before the break has left.
void Tunnel::BreakNow() {
    state = State::Broken;
    brokenAt = Clock::now();
    const bool isSudden =
        plan.breaks == Break::Close || plan.breaks == Break::Reset || plan.breaks == Break::Throw;
    for (const auto& opening : sessions.Openings())
        isSudden ? opening->facts.CutShort(brokenAt) : opening->facts.Cut(brokenAt);
    std::error_code ignored;
    if (plan.breaks == Break::HalfClose) socket.shutdown(tcp::socket::shutdown_send, ignored);
    if (plan.breaks == Break::Reset) socket.set_option(asio::socket_base::linger(true, 0), ignored);
    if (plan.breaks == Break::Close || plan.breaks == Break::Reset) socket.close(ignored);
}

void Tunnel::AgentIsGone() {
    if (state < State::Broken) Fault("the agent has left it before it was broken");
    state = State::Gone;
    std::error_code ignored;
    socket.close(ignored);
    timer.cancel();
    sessions.Abandon();
}

void Tunnel::Fault(const std::string& text) { surroundings.onFault(Name() + ": " + text); }

// ---- Writing

void Tunnel::Compose() {
    while (state <= State::Draining && speech.Size() < composedAhead) {
        if (OneIn(random, framesPerNoise)) speech.Noise(random);
        if (!sessions.Speak()) return;
    }
}

void Tunnel::Write() {
    writeUnderWay = false;
    for (int calls = 0; calls < callsPerTurn; ++calls) {
        if (state > State::Breaking || writeMood.mostBytes == 0 || Clock::now() < writeAfter) return;
        Compose();
        if (speech.Size() == 0) {
            if (state == State::Breaking) BreakNow();
            return;
        }
        if (!WriteSome()) return;
    }
    writeUnderWay = true;
    asio::post(io, [self = shared_from_this()] { self->OnWritable({}); });
}

/// @return whether to write on
bool Tunnel::WriteSome() {
    std::error_code error;
    const std::size_t size =
        socket.write_some(asio::buffer(speech.Bytes().substr(0, writeMood.mostBytes)), error);
    speech.Written(size);
    if (error == asio::error::would_block) {
        writeUnderWay = true;
        socket.async_wait(tcp::socket::wait_write, Handler(&Tunnel::OnWritable));
        return false;
    }
    writeAfter = Clock::now() + writeMood.pause;
    return !error;  // an error means that the agent has gone; the reading side sees it, too
}

void Tunnel::OnWritable(std::error_code error) {
    writeUnderWay = false;
    if (!error) Write();
}

// ---- Reading

void Tunnel::Read() {
    readUnderWay = false;
    for (int calls = 0; calls < callsPerTurn; ++calls) {
        if (!socket.is_open() || readMood.mostBytes == 0 || Clock::now() < readAfter) return;
        if (!ReadSome()) return;
    }
    readUnderWay = true;
    asio::post(io, [self = shared_from_this()] { self->OnReadable({}); });
}

/// @return whether to read on
bool Tunnel::ReadSome() {
    std::error_code error;
    const std::size_t most = std::min(readMood.mostBytes, readBytes);
    const std::size_t size = socket.read_some(asio::buffer(hearing.Room(most), most), error);
    hearing.Received(size, speech.HasSigned());
    if (error == asio::error::would_block) {
        readUnderWay = true;
        socket.async_wait(tcp::socket::wait_read, Handler(&Tunnel::OnReadable));
        return false;
    }
    if (error) return OnAgentEnd(error), false;
    readAfter = Clock::now() + readMood.pause;
    return true;
}

void Tunnel::OnReadable(std::error_code error) {
    readUnderWay = false;
    if (!error) Read();
}

void Tunnel::OnAgentEnd(std::error_code error) {
    if (state < State::Broken) Fault("the agent has ended it by itself: " + error.message());
    std::error_code ignored;
    socket.close(ignored);
}

}  // namespace storm
