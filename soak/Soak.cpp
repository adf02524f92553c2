#include "soak/Soak.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iomanip>
#include <iostream>

#include "soak/Ledger.h"

namespace soak {

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr milliseconds tick{50};
constexpr seconds longestWarmUp{60};
/// Twenty of the agent's seconds: it keeps a session for ten after its end.
constexpr seconds quietTime{2};
/// Until the last session must have ended: as long as the slowest plan and the server's delays may take.
constexpr seconds settleLimit{60};
/// The agent tries three times, up to thirty of its seconds each, before it registers with the new server.
constexpr seconds returnLimit{45};
constexpr std::size_t mostSessions = 300;
/// What fragments of the heap may come to in a process that has moved gigabytes in pieces of every size.
constexpr std::size_t memorySlackKibibytes = 4096;
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

// From below the range that the kernel takes for connections: nobody else gets the port while
// the server is down.
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
    openTimer.expires_after(milliseconds(Draw(random, 10, 90)));
    openTimer.async_wait([this](std::error_code) {
        if (phase == Phase::Over) return;
        if (IsWorking() && agent && traffic.Living() < mostSessions) traffic.Open();
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
    WatchServer();
    WatchPhase();
    if (!agent || !agent->HasEnded()) return;
    Fault("the agent has ended");
    phase = Phase::Over;
}

// ---- The server's lives

void Soak::OnServerLine(const ServerLine& line, const std::string& text) {
    using Kind = ServerLine::Kind;
    if (line.kind == Kind::Ready && !agent)
        agent.emplace(io, configurationFolder, traffic.Doors(), server.SsoPort(),
                      [this](const AgentLine& words) { traffic.OnAgentLine(words); });
    traffic.OnServerLine(line);
    if (line.kind == Kind::Connected) OnServing();
    if (line.kind == Kind::Disconnected && life == Life::Serving) Fault("unasked: " + text);
    if (line.kind == Kind::Error && life == Life::Serving) Fault("the server says: " + text);
}

void Soak::OnServing() {
    life = Life::Serving;
    quietSince = Clock::now();
    nextDeath = Clock::now() + milliseconds(Draw(random, 6000, 20000));
}

void Soak::WatchServer() {
    if (life == Life::Serving && IsWorking() && Clock::now() >= nextDeath) KillServer();
    if (life == Life::Starting && Clock::now() - lifeStart > returnLimit) {
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

// In turn without a word, and in good order.
void Soak::KillServer() {
    life = Life::Dying;
    traffic.Strike();
    server.Signal(++deaths % 2 == 1 ? SIGKILL : SIGTERM);
}

// ---- The phases

void Soak::NextPhase(Phase next) {
    phase = next;
    phaseStart = quietSince = Clock::now();
    phaseEnd = next == Phase::Working ? std::max(workEnd, phaseStart + tick) : phaseStart + settleLimit;
}

void Soak::WatchPhase() {
    if (IsWorking()) {
        if (Clock::now() < phaseEnd) return;
        return NextPhase(phase == Phase::WarmUp ? Phase::WarmUpSettling : Phase::Settling);
    }
    if (phase == Phase::Over) return;
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
    holdings.push_back(agent->Holds());
    NextPhase(phase == Phase::WarmUpSettling ? Phase::Working : Phase::Over);
}

// ---- The report

void Soak::Fault(const std::string& text) {
    faults.push_back(text);
    if (faults.size() <= mostFaultsShown) std::cout << "FAULT: " << text << std::endl;
}

bool Soak::Report() {
    Ledger ledger;
    for (const Account& account : traffic.Accounts()) {
        ledger.Enter(account);
        if (!Balances(account)) std::cout << account;
    }
    ledger.Print(std::cout);
    if (!ledger.Balances()) Fault("the ledger does not balance");
    if (!ReportAgent()) Fault("the agent does not hold what it held after the warm-up");
    std::cout << "server\n"
              << std::setw(16) << deaths << "  deaths, every other one without a word\n"
              << "faults\n"
              << std::setw(16) << faults.size() << "  things that must not be\n";
    return faults.empty();
}

bool Soak::ReportAgent() {
    if (holdings.size() < 2) return false;
    const Holdings &before = holdings.front(), &after = holdings.back();
    const auto line = [](const char* what, std::size_t first, std::size_t last) {
        std::cout << std::setw(16) << last << "  " << what << ", " << first << " after the warm-up\n";
    };
    std::cout << "the idle agent at the end\n";
    line("descriptors", before.descriptors, after.descriptors);
    line("threads", before.threads, after.threads);
    line("KiB resident (4096 more would do)", before.residentKibibytes, after.residentKibibytes);
    return after.descriptors == before.descriptors && after.threads == before.threads &&
           after.residentKibibytes <= before.residentKibibytes + memorySlackKibibytes;
}

}  // namespace soak
