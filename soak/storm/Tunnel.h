#pragma once

#include <algorithm>
#include <asio.hpp>
#include <memory>
#include <string>
#include <vector>

#include "soak/storm/Hearing.h"
#include "soak/storm/Plan.h"
#include "soak/storm/Sessions.h"
#include "soak/storm/Speech.h"

namespace storm {

/// The server's end of one connection, and the services of its sessions.
///
///   Start -> Speaking -> (Draining: no new sessions, until none lives) -> Breaking -> Broken -> Gone
///            Tick: opens and ends sessions, changes moods, wakes the two below
///            Write <-> OnWritable        frames leave, in pieces of any size
///            Read  <-> OnReadable        until the agent's end
///            AgentIsGone -> IsSettled    the services have seen their end, too
///
/// Moods decide how it reads and writes; each lasts for a while. All on the event loop's one thread.
class Tunnel : public std::enable_shared_from_this<Tunnel> {
public:
    Tunnel(asio::io_context& loop, asio::ip::tcp::socket accepted, std::uint64_t tunnelNumber,
           Surroundings& storm);
    void Start();
    /// Breaks it as planned, now.
    void EndSoon() { lifeEnd = std::min(lifeEnd, Clock::now()); }

    /// The agent has left it: it connects again, or its run is over.
    void AgentIsGone();
    bool IsSettled() const { return sessions.AreSettled(); }
    bool IsBroken() const { return state >= State::Broken; }
    Clock::time_point BrokenSince() const { return brokenAt; }
    Clock::time_point LastProgress() const { return lastProgress; }
    Break HowBroken() const { return plan.breaks; }
    /// Bytes of sessions, both ways.
    std::uint64_t Received() const { return hearing.Bytes() + sessions.ReceivedDown(); }
    const std::vector<std::unique_ptr<Opening>>& Openings() const { return sessions.Openings(); }
    std::vector<const Opening*> Living() const { return sessions.Living(); }
    std::string Name() const { return "tunnel " + std::to_string(number); }

private:
    enum class State { Speaking, Draining, Breaking, Broken, Gone };
    template <typename Method>
    auto Handler(Method method) {
        return [self = shared_from_this(), method](auto... results) { (self.get()->*method)(results...); };
    }

    void Tick(std::error_code error);
    void ChangeMoods(Clock::time_point now);
    void Advance(Clock::time_point now);
    void BeginBreak();
    void ComposePart();
    void BreakNow();
    void Compose();
    void Write();
    bool WriteSome();
    void OnWritable(std::error_code error);
    void Read();
    bool ReadSome();
    void OnReadable(std::error_code error);
    void OnAgentEnd(std::error_code error);
    void Fault(const std::string& text);

    asio::io_context& io;
    asio::ip::tcp::socket socket;
    asio::steady_timer timer{io};
    std::uint64_t number;
    Surroundings& surroundings;
    Random random;
    TunnelPlan plan;
    State state = State::Speaking;
    Speech speech;
    Hearing hearing;
    Sessions sessions;

    Mood writeMood, readMood;
    Clock::time_point writeMoodEnd, readMoodEnd, writeAfter, readAfter;
    bool writeUnderWay = false, readUnderWay = false;  // a handler will come
    Clock::time_point lifeEnd, brokenAt = Clock::time_point::max(), lastProgress = Clock::now();
    std::uint64_t progress = 0;
};

}  // namespace storm
