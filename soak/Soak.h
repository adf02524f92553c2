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

/// The whole run, in stages: warm-up, the main part, then bursts of small sessions.
///
///   Run -> Working: sessions are opened; outside bursts the server dies and the tunnel breaks now and then
///       -> Settling: no session is opened, until all have ended and the agent has forgotten them
///       -> LookAtAgent: its resources are noted; then the next stage, or Over
///
/// All on the event loop's one thread.
class Soak {
public:
    Soak(std::chrono::seconds length, std::uint64_t seed, const std::filesystem::path& folder);
    /// Runs it, and writes the report to standard output.
    /// @return whether there was no fault
    bool Run();

private:
    enum class Phase { Working, Settling, Over };
    /// The state of the tunnel. Breaking: it was broken, and the server has not noticed yet. Dying: the
    /// server was killed or told to end. Starting: the agent has to come back.
    enum class Life { Starting, Serving, Breaking, Dying };
    /// The agent's resources while no session lives.
    struct Look {
        std::size_t sessions = 0;  ///< opened so far
        Holdings holdings;
    };

    void OpenSometimes();
    void Tick();
    void OnTick();
    void OnServerLine(const ServerLine& line, const std::string& text);
    void OnServing();
    void OnDisconnected(const std::string& text);
    void WatchTunnel();
    void Disturb();
    void BreakTunnel(pid_t process);
    void KillServer(int signal);
    void NextPhase(Phase next);
    void WatchPhase();
    void LookAtAgent();
    bool HasWorked() const;
    bool IsSettled();
    bool IsBurst() const;
    void Fault(const std::string& text);
    bool Report();
    void CheckAccounts();
    void CheckAgent();
    double LeastGrowth() const;
    unsigned short FreePort();

    asio::io_context io{1};
    asio::steady_timer openTimer{io}, tickTimer{io};
    std::chrono::seconds duration;
    unsigned nextPort;  // the next one that FreePort tries
    Random random;
    Traffic traffic;
    Server server;
    std::optional<Agent> agent;

    std::size_t stage = 0;
    Phase phase = Phase::Working;
    Life life = Life::Starting;
    Clock::time_point phaseStart = Clock::now(), phaseEnd, workEnd, lifeStart = Clock::now(), nextDisturbance,
                      quietSince;
    std::filesystem::path configurationFolder;
    std::uint64_t disturbances = 0, deaths = 0, breaks = 0;
    std::vector<Look> looks;  // one for each stage
    std::vector<std::string> faults;
};

}  // namespace soak
