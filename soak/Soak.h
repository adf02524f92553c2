#pragma once

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "soak/Programs.h"
#include "soak/Traffic.h"

namespace soak {

/// The whole run.
///
///   Start -> working: sessions are opened, the server dies now and then -> Settle: none is opened ->
///   OnQuiet: the agent is looked at, twice: first after the warm-up, and at the end
///
/// All on the event loop's one thread.
class Soak {
public:
    Soak(std::chrono::seconds length, std::uint64_t seed, const std::filesystem::path& folder);
    /// Runs it, and writes the report to standard output. @return whether nothing was lost without a reason
    bool Run();

private:
    enum class Phase { WarmUp, WarmUpSettling, Working, Settling, Over };
    enum class Life { Starting, Serving, Dying };  // the server's, as its device sees it

    void OpenSometimes();
    void Tick();
    void OnTick();
    void OnServerLine(const ServerLine& line, const std::string& text);
    void OnServing();
    void WatchServer();
    void KillServer();
    void NextPhase(Phase next);
    void WatchPhase();
    void LookAtAgent();
    bool IsSettled();
    bool IsWorking() const { return phase == Phase::WarmUp || phase == Phase::Working; }
    void Fault(const std::string& text);
    bool Report();
    bool ReportAgent();
    unsigned short FreePort();

    asio::io_context io{1};
    asio::steady_timer openTimer{io}, tickTimer{io};
    std::chrono::seconds duration;
    unsigned nextPort;  // to try
    Random random;
    Traffic traffic;
    Server server;
    std::optional<Agent> agent;

    Phase phase = Phase::WarmUp;
    Life life = Life::Starting;
    Clock::time_point phaseStart = Clock::now(), phaseEnd, workEnd, lifeStart = Clock::now(), nextDeath,
                      quietSince;
    std::filesystem::path configurationFolder;
    std::uint64_t deaths = 0;
    std::vector<Holdings> holdings;
    std::vector<std::string> faults;
};

}  // namespace soak
