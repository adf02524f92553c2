#include "soak/storm/Tunnel.h"

#include <algorithm>
#include <utility>

#include "lab/Frame.h"
#include "soak/storm/Service.h"

namespace storm {

using asio::ip::tcp;

namespace {

constexpr int callsPerTurn = 8;
constexpr std::size_t composedAhead = 262144;
constexpr std::size_t readBytes = 262144;
constexpr milliseconds tick{1};
constexpr std::uint64_t framesPerNoise = 40;
constexpr std::size_t mostSessions = 1000, mostLiving = 300;  // of one tunnel; of the latter, at once

}  // namespace

Tunnel::Tunnel(asio::io_context& loop, tcp::socket accepted, std::uint64_t tunnelNumber, Surroundings& storm)
    : io(loop),
      socket(std::move(accepted)),
      number(tunnelNumber),
      surroundings(storm),
      random(soak::Mixed(storm.seed + tunnelNumber)),
      plan(DrawTunnel(random)),
      hearing([this](const std::string& text) { Fault(text); }) {}

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

// ---- The server's mind

void Tunnel::Tick(std::error_code error) {
    if (error || state == State::Gone) return;
    const auto now = Clock::now();
    ChangeMoods(now);
    if (state == State::Speaking) OpenSessions();
    if (state <= State::Draining) EndSessions(now);
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

void Tunnel::OpenSessions() {
    const auto isEnding = [](const Opening* opening) {
        return opening->isClosing || opening->facts.isDisconnected;
    };
    const auto ending = std::count_if(living.begin(), living.end(), isEnding);
    const std::size_t busy = living.size() - static_cast<std::size_t>(ending);
    if (openings.size() == mostSessions) return EndSoon();
    if (busy < plan.sessionsAtOnce && living.size() < mostLiving) OpenOne();
}

void Tunnel::OpenOne() {
    const std::uint64_t key = ++surroundings.openings;
    Random own(soak::Mixed(surroundings.seed ^ soak::Mixed(key)));
    const OpeningPlan openingPlan = DrawOpening(own);
    using soak::Direction;
    auto opening =
        std::make_unique<Opening>(Opening{key, DrawId(openingPlan), openingPlan,
                                          soak::KeyedStream(surroundings.seed, key, Direction::ToService),
                                          soak::KeyedStream(surroundings.seed, key, Direction::ToClient)});
    opening->facts.isOddId = opening->id.size() != lab::sessionIdBytes;
    opening->service = std::make_shared<Service>(io, *opening, own());
    Opening*& last = byId[opening->id];
    if (last != nullptr) last->isClosing = true;
    speech.Open(*opening, opening->service->Listen(), last);
    hearing.Expect(*opening);
    last = opening.get();
    living.push_back(last);
    speakers.push_back(last);
    openings.push_back(std::move(opening));
}

std::string Tunnel::DrawId(const OpeningPlan& openingPlan) {
    if (openingPlan.takesIdInUse && !living.empty()) {
        const auto& id = living[Draw(random, 0, living.size() - 1)]->id;
        if (id.size() == lab::sessionIdBytes) return id;
    }
    std::string id = std::to_string(number) + "-" + std::to_string(openings.size()) + "-";
    std::size_t size = lab::sessionIdBytes;
    if (openingPlan.hasOddId) size = OneIn(random, 2) ? Draw(random, id.size(), 15) : Draw(random, 17, 40);
    while (id.size() < size) id += static_cast<char>(Draw(random, 'a', 'z'));
    return id;
}

void Tunnel::EndSessions(Clock::time_point now) {
    const auto isOver = [this](const Opening* opening) { return IsOver(*opening); };
    living.erase(std::remove_if(living.begin(), living.end(), isOver), living.end());
    for (Opening* opening : living) {
        const auto& [facts, wanted] = std::tie(opening->facts, opening->plan);
        const bool isDone = wanted.ending == Ending::ServerWhenDone && facts.receivedDown == wanted.down &&
                            facts.receivedUp == wanted.up;
        const bool isTime =
            wanted.ending == Ending::ServerMidway && now - opening->openedAt >= wanted.serverEndsAfter;
        if (!opening->isClosing && opening->isAsked && (isDone || isTime)) End(*opening);
    }
}

void Tunnel::End(Opening& opening) {
    opening.isClosing = true;
    speech.End(opening);
}

/// On the server's side and on the service's. Only asked before the tunnel is broken.
bool Tunnel::IsOver(const Opening& opening) const {
    const Facts& facts = opening.facts;
    if (facts.isRefused) return facts.isDisconnected || facts.isReplaced;
    return opening.service->IsOver() && (facts.isDisconnected || facts.isReplaced || facts.isEnded);
}

void Tunnel::Advance(Clock::time_point now) {
    if (now < lifeEnd) return;
    if (state == State::Speaking && plan.isDrained) state = State::Draining;
    if (state == State::Speaking || (state == State::Draining && living.empty())) BeginBreak();
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
    if (plan.place == Place::InPayload && !speakers.empty())
        speech.BeginPayload(random, *speakers[Draw(random, 0, speakers.size() - 1)]);
}

// Everything before it has left.
void Tunnel::BreakNow() {
    state = State::Broken;
    brokenAt = Clock::now();
    const bool isSudden =
        plan.breaks == Break::Close || plan.breaks == Break::Reset || plan.breaks == Break::Throw;
    for (const auto& opening : openings) {
        opening->facts.isCut = true;
        isSudden ? opening->facts.CutShort(brokenAt) : opening->facts.Stop(brokenAt);
    }
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
    for (const auto& opening : openings) opening->service->Abandon();
}

bool Tunnel::IsSettled() const {
    return std::all_of(openings.begin(), openings.end(),
                       [](const auto& opening) { return opening->service->IsOver(); });
}

std::uint64_t Tunnel::Received() const {
    std::uint64_t bytes = hearing.Bytes();
    for (const auto& opening : openings) bytes += opening->facts.receivedDown;
    return bytes;
}

void Tunnel::Fault(const std::string& text) { surroundings.onFault(Name() + ": " + text); }

// ---- Writing

void Tunnel::Compose() {
    while (state <= State::Draining && speech.Size() < composedAhead) {
        if (OneIn(random, framesPerNoise)) speech.Noise(random);
        if (!ComposeData()) return;
    }
}

/// @return whether there was any
bool Tunnel::ComposeData() {
    while (!speakers.empty()) {
        const std::size_t place = Draw(random, 0, speakers.size() - 1);
        Opening& opening = *speakers[place];
        if (MaySpeakTo(opening)) {
            const auto size = Draw(random, 1, opening.plan.largestFrame);
            speech.Data(opening, std::min(size, opening.plan.down - opening.composedDown));
            EndInTheMiddle(opening);
            return true;
        }
        std::swap(speakers[place], speakers.back());
        speakers.pop_back();
    }
    return false;
}

// The agent has had no time to get rid of the last frames.
void Tunnel::EndInTheMiddle(Opening& opening) {
    const bool isTime = opening.composedDown >= opening.plan.serverEndsAt;
    if (opening.plan.ending == Ending::ServerMidway && isTime && !opening.isClosing) End(opening);
}

// A successor of the same id would get it.
bool Tunnel::MaySpeakTo(const Opening& opening) const {
    if (opening.composedDown == opening.plan.down || byId.at(opening.id) != &opening) return false;
    return opening.plan.isSpokenToAfterwards || (!opening.isClosing && !opening.facts.isDisconnected);
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
    return !error;  // of an agent that has gone: the reading side sees it, too
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
