#pragma once

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "soak/storm/Hearing.h"
#include "soak/storm/Opening.h"
#include "soak/storm/Speech.h"

namespace storm {

/// What all tunnels of a storm share.
struct Surroundings {
    std::uint64_t seed = 0;
    std::uint64_t openings = 0;  ///< so far; the next one's key is one more
    std::function<void(const std::string&)> onFault;
};

/// The sessions of one tunnel and their services: opens them, speaks to them, and ends them as planned. All
/// that it sends goes through a Speech.
class Sessions {
public:
    static constexpr std::size_t most = 1000;

    Sessions(asio::io_context& loop, std::uint64_t tunnelNumber, Surroundings& storm, Random& tunnelRandom,
             Speech& toAgent, Hearing& fromAgent);

    /// One more, unless `atOnce` are busy.
    void OpenSometimes(std::size_t atOnce);
    /// Ends those whose time has come.
    void EndSome(Clock::time_point now);
    /// Composes a data frame of one of them. @return whether any had bytes left to send
    bool Speak();
    /// Composes the beginning of one, if any session is open.
    void BeginPayload();

    bool NoneLives() const { return living.empty(); }
    std::uint64_t ReceivedDown() const;
    const std::vector<std::unique_ptr<Opening>>& Openings() const { return openings; }
    /// The openings that are not over, for whoever looks for a fault.
    std::vector<const Opening*> Living() const { return {living.begin(), living.end()}; }
    /// Lets no service wait for the agent any more.
    void Abandon();
    /// Every service has seen the end.
    bool AreSettled() const;

private:
    static constexpr std::size_t mostLiving = 300;

    void Open();
    std::string DrawId(const OpeningPlan& plan);
    void End(Opening& opening);
    void EndInTheMiddle(Opening& opening);
    bool MaySpeakTo(const Opening& opening) const;

    asio::io_context& io;
    std::uint64_t number;
    Surroundings& surroundings;
    Random& random;
    Speech& speech;
    Hearing& hearing;
    std::vector<std::unique_ptr<Opening>> openings;
    std::vector<Opening*> living;          // not over yet
    std::vector<Opening*> speakers;        // those that may have bytes left to send
    std::map<std::string, Opening*> byId;  // the last of each
};

}  // namespace storm
