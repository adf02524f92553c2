#include "soak/Soak.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <iomanip>
#include <iostream>
#include <limits>

#include "soak/BreakConnection.h"
#include "soak/Ledger.h"

namespace soak {

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr milliseconds tick{50};
constexpr seconds longestWarmUp{60};
/// Twenty of the agent's seconds, because it keeps a session for ten seconds after its end.
constexpr seconds quietTime{2};
/// The last session must have ended by then, after the slowest plan and all of the server's delays.
constexpr seconds settleLimit{60};
/// The agent tries three times, up to thirty of its seconds each, before it registers with the new server.
constexpr seconds returnLimit{45};
constexpr std::size_t mostSessions = 300;
/// The first stage is the warm-up, the second the main part, the others are bursts.
constexpr std::size_t mainStage = 1, stages = 5;
constexpr std::size_t burstSessions = 1000;
/// More than this in every burst is a leak.
constexpr double mostBytesPerSession = 512;
constexpr std::size_t mostFaultsShown = 20;

}  // namespace

Soak::Soak(seconds length, std::uint64_t seed, const std::filesystem::path& folder)
    : duration(length),
      nextPort(static_cast<unsigned>(getpid()) * 16),
      random(Mixed(seed)),
      traffic(
          io, seed, [this] { return FreePort(); }, [this](const std::string& text) { Fault(text); }),
      server(
          io, folder, traffic.Doors(), [this] { return FreePort(); },
          [this](const ServerLine& line, const std::string& text) { OnServerLine(line, text); }),
      configurationFolder(folder) {}

// From below the range that the kernel takes for connections, so that nobody gets the port while the server
// is down.
unsigned short Soak::FreePort() {
    for (;; ++nextPort) {
        const auto port = static_cast<unsigned short>(20000 + nextPort % 10000);
        std::error_code taken;
        asio::ip::tcp::acceptor probe(io);
        probe.open(asio::ip::tcp::v4(), taken);
        if (!taken) probe.bind({asio::ip::address_v4::loopback(), port}, taken);
        if (taken) continue;
        ++nextPort;
        return port;
    }
}

bool Soak::Run() {
    phaseEnd = Clock::now() + std::min<Clock::duration>(duration / 3, longestWarmUp);
    workEnd = Clock::now() + duration;
    server.Start();
    OpenSometimes();
    Tick();
    io.run();
    return Report();
}

void Soak::OpenSometimes() {
    openTimer.expires_after(IsBurst() ? milliseconds(1) : milliseconds(Draw(random, 10, 90)));
    openTimer.async_wait([this](std::error_code) {
        if (phase == Phase::Over) return;
        const bool mayOpen = phase == Phase::Working && agent && life != Life::Breaking;
        if (mayOpen && traffic.Living() < mostSessions) traffic.Open(IsBurst() ? DrawSmallPlan : DrawPlan);
        OpenSometimes();
    });
}

void Soak::Tick() {
    tickTimer.expires_after(tick);
    tickTimer.async_wait([this](std::error_code) {
        OnTick();
        phase == Phase::Over ? io.stop() : Tick();
    });
}

void Soak::OnTick() {
    traffic.Tick();
    WatchTunnel();
    WatchPhase();
    if (!agent || !agent->HasEnded()) return;
    Fault("the agent has ended");
    phase = Phase::Over;
}

// ---- The tunnel's lives

void Soak::OnServerLine(const ServerLine& line, const std::string& text) {
    using Kind = ServerLine::Kind;
    if (line.kind == Kind::Ready && !agent)
        agent.emplace(io, configurationFolder, traffic.Doors(), server.SsoPort(),
                      [this](const AgentLine& words) { traffic.OnAgentLine(words); });
    traffic.OnServerLine(line);
    if (line.kind == Kind::Connected) OnServing();
    if (line.kind == Kind::Disconnected) OnDisconnected(text);
    if (line.kind == Kind::Error && life == Life::Serving) Fault("the server reports: " + text);
}

void Soak::OnServing() {
    life = Life::Serving;
    quietSince = Clock::now();
    nextDisturbance = Clock::now() + milliseconds(Draw(random, 4000, 14000));
}

void Soak::OnDisconnected(const std::string& text) {
    if (life == Life::Serving) Fault("the tunnel ended without a reason: " + text);
    if (life == Life::Dying) return;
    traffic.Strike();
    life = Life::Starting;
    lifeStart = Clock::now();
}

void Soak::WatchTunnel() {
    const bool mayDisturb = phase == Phase::Working && !IsBurst();
    if (life == Life::Serving && mayDisturb && Clock::now() >= nextDisturbance) Disturb();
    if ((life == Life::Starting || life == Life::Breaking) && Clock::now() - lifeStart > returnLimit) {
        Fault("the agent does not come back");
        phase = Phase::Over;
    }
    if (!server.HasEnded()) return;
    if (life != Life::Dying) Fault("the server has ended by itself");
    traffic.OnServerGone();
    life = Life::Starting;
    lifeStart = Clock::now();
    server.Start();
}

// In turn: the network fails on the agent's side, the server is killed, the network fails on the server's
// side, the server ends in good order.
void Soak::Disturb() {
    traffic.Strike();
    switch (disturbances++ % 4) {
        case 0: return BreakTunnel(agent->Pid());
        case 1: return KillServer(SIGKILL);
        case 2: return BreakTunnel(server.Process().Pid());
        default: return KillServer(SIGTERM);
    }
}

void Soak::BreakTunnel(pid_t process) {
    life = Life::Breaking;
    lifeStart = Clock::now();
    ++breaks;
    if (!BreakConnection(process, server.TunnelPort())) Fault("there is no tunnel to break");
}

void Soak::KillServer(int signal) {
    life = Life::Dying;
    ++deaths;
    server.Process().Signal(signal);
}

// ---- The phases

bool Soak::IsBurst() const { return stage > mainStage; }

void Soak::NextPhase(Phase next) {
    phase = next;
    phaseStart = quietSince = Clock::now();
    const bool isMain = next == Phase::Working && stage == mainStage;
    phaseEnd = isMain ? std::max(workEnd, phaseStart + tick) : phaseStart + settleLimit;
}

// A burst that opens too few sessions ends with its limit of time.
bool Soak::HasWorked() const {
    const bool hasOpened = IsBurst() && traffic.Opened() - looks.back().sessions >= burstSessions;
    return hasOpened || Clock::now() >= phaseEnd;
}

void Soak::WatchPhase() {
    if (phase == Phase::Over) return;
    if (phase == Phase::Working) {
        if (HasWorked()) NextPhase(Phase::Settling);
        return;
    }
    if (IsSettled()) return LookAtAgent();
    if (Clock::now() < phaseEnd) return;
    Fault("no quiet:" + traffic.NamesOfLiving());
    phase = Phase::Over;
}

bool Soak::IsSettled() {
    if (traffic.Living() > 0 || life != Life::Serving) quietSince = Clock::now();
    return Clock::now() - quietSince >= quietTime;
}

void Soak::LookAtAgent() {
    looks.push_back({traffic.Opened(), agent->Holds()});
    NextPhase(++stage == stages ? Phase::Over : Phase::Working);
}

// ---- The report

void Soak::Fault(const std::string& text) {
    faults.push_back(text);
    if (faults.size() <= mostFaultsShown) std::cout << "FAULT: " << text << std::endl;
}

bool Soak::Report() {
    CheckAccounts();
    CheckAgent();
    if (deaths == 0 || breaks == 0) Fault("the run was too short: no server died, or no tunnel broke");
    std::cout << "tunnel\n"
              << std::setw(16) << deaths << "  deaths of the server, every other one without notice\n"
              << std::setw(16) << breaks << "  breaks while the server lived\n"
              << "faults\n"
              << std::setw(16) << faults.size() << "  in all\n";
    return faults.empty();
}

void Soak::CheckAccounts() {
    Ledger ledger;
    for (const Account& account : traffic.Accounts()) {
        ledger.Enter(account);
        const std::string fault = FaultIn(account);
        if (fault.empty()) continue;
        Fault("session " + std::to_string(account.number) + ": " + fault);
        if (faults.size() <= mostFaultsShown) std::cout << account;
    }
    ledger.Print(std::cout);
    if (ledger.ClientStalls() == 0) Fault("the run was too short: no client stopped reading for a while");
}

// What the allocator keeps grows now and then, but a leak grows in every burst.
double Soak::LeastGrowth() const {
    double least = std::numeric_limits<double>::max();
    for (std::size_t i = mainStage + 1; i < looks.size(); ++i) {
        const Look &before = looks[i - 1], &after = looks[i];
        const auto grown =
            static_cast<double>(after.holdings.kibibytes) - static_cast<double>(before.holdings.kibibytes);
        least = std::min(least, 1024 * grown / static_cast<double>(after.sessions - before.sessions));
    }
    return least;
}

void Soak::CheckAgent() {
    if (looks.size() < stages) return;  // there is a fault already
    std::cout << "the idle agent after the warm-up, the main part and each burst of small sessions\n";
    for (const auto& [sessions, held] : looks) {
        std::cout << std::setw(16) << sessions << "  sessions, then " << held.descriptors << " descriptors, "
                  << held.threads << " threads, " << held.kibibytes << " KiB\n";
        const Holdings& first = looks.front().holdings;
        if (held.descriptors != first.descriptors)
            Fault("the agent's descriptors are not those it began with");
        if (held.threads != first.threads) Fault("the agent's threads are not those it began with");
    }
    const double growth = LeastGrowth();
    std::cout << std::setw(16) << std::lround(growth)
              << "  bytes for each session, in the burst with the least\n";
    if (growth > mostBytesPerSession)
        Fault("the agent's memory grows by " + std::to_string(std::lround(growth)) +
              " bytes for each session");
}

}  // namespace soak
