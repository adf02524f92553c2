#include "soak/storm/Storm.h"

#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

#include "tunnel/TunnelClient.h"

namespace storm {

using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr auto mostSilence = 60s;  // a client or a session with something to do hangs after that
constexpr auto progressEvery = 5s;
constexpr std::uint64_t patientEvery = 4;  // every fourth run is patient, beginning with the first
constexpr std::uint64_t mostFaultsPrinted = 20;
constexpr double megabyte = 1000000;

std::size_t Descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

nox::tunnel_client::TunnelConfig Configuration(unsigned short port, Random& random) {
    nox::tunnel_client::TunnelConfig config;
    config.username = "user";
    config.password = password;
    config.serverHost = "127.0.0.1";
    config.serverPort = port;
    config.deviceId = "device/1";
    config.tunnelReconnectSeconds = static_cast<std::int32_t>(Draw(random, 0, 3));
    config.tunnelHeartbeatSeconds = static_cast<std::int32_t>(Draw(random, 1, 30));
    return config;
}

}  // namespace

Storm::Storm(std::uint64_t bytes, std::uint64_t seed) : target(bytes), random(soak::Mixed(~seed)) {
    surroundings.seed = seed;
    surroundings.onFault = [this](const std::string& text) { Fault(text); };
}

Storm::~Storm() {
    if (client.joinable()) client.join();
}

bool Storm::Run() {
    const std::size_t before = Descriptors();
    acceptor.emplace(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    port = acceptor->local_endpoint().port();
    Accept();
    StartRun();
    Watch({});
    io.run();
    PrintReport();
    const std::size_t after = Descriptors();
    if (after != before)
        Fault(std::to_string(after) + " descriptors at the end, " + std::to_string(before) + " at the start");
    return faults == 0;
}

// ---- The client

void Storm::StartRun() {
    ++runs;
    isRunning = true;
    lastChange = Clock::now();
    const auto config = Configuration(port, random);
    const auto delays = DrawDelays(random, runs % patientEvery == 1);
    client = std::thread([this, config, delays] {
        std::string exception;
        try {
            nox::tunnel_client::TunnelClient(config, delays).Run();
        } catch (const std::exception& error) {
            exception = error.what();
        }
        asio::post(io, [this, exception] { OnRunOver(exception); });
    });
}

void Storm::OnRunOver(const std::string& exception) {
    client.join();
    isRunning = false;
    const bool wasToThrow = tunnel && tunnel->IsBroken() && tunnel->HowBroken() == Break::Throw;
    if (!exception.empty() && !wasToThrow) Fault("the run ended by an exception: " + exception);
    if (exception.empty() && wasToThrow) Fault(tunnel->Name() + ": the run did not end by an exception");
    exceptions += exception.empty() ? 0U : 1U;
    EndTunnel();
    if (acceptor) return StartRun();
}

// ---- Its tunnels

void Storm::Accept() {
    acceptor->async_accept(
        [this](std::error_code error, tcp::socket accepted) { OnAccepted(error, std::move(accepted)); });
}

void Storm::OnAccepted(std::error_code error, tcp::socket accepted) {
    if (error) return;
    EndTunnel();
    tunnel = std::make_shared<Tunnel>(io, std::move(accepted), ++tunnels, surroundings);
    tunnel->Start();
    lastChange = Clock::now();
    Accept();
}

void Storm::EndTunnel() {
    lastChange = Clock::now();
    if (!tunnel) return;
    tunnel->AgentIsGone();
    settling.push_back(std::exchange(tunnel, nullptr));
}

// Its services may still read bytes that the agent has written.
void Storm::Settle() {
    while (!settling.empty() && settling.front()->IsSettled()) {
        const Tunnel& settled = *settling.front();
        for (const auto& opening : settled.Openings()) {
            std::ostringstream text;
            text << *opening;
            if (const auto fault = FaultIn(opening->facts); !fault.empty())
                Fault(settled.Name() + ": " + fault + ": " + text.str());
            ledger.Enter(*opening);
        }
        ledger.EnterTunnel(settled.HowBroken());
        settledBytes += settled.Received();
        settling.pop_front();
        lastChange = Clock::now();
    }
}

std::uint64_t Storm::Received() const {
    std::uint64_t bytes = settledBytes + (tunnel ? tunnel->Received() : 0);
    for (const auto& each : settling) bytes += each->Received();
    return bytes;
}

// ---- Watching

void Storm::Watch(std::error_code) {
    const auto now = Clock::now();
    Settle();
    WatchTunnel(now);
    if (IsEnough() || faults > mostFaultsPrinted) {
        acceptor.reset();
        if (tunnel) tunnel->EndSoon();
    }
    if (now >= nextProgress) PrintProgress();
    if (!acceptor && !isRunning && settling.empty()) return;
    timer.expires_after(10ms);
    timer.async_wait([this](std::error_code error) { Watch(error); });
}

void Storm::WatchTunnel(Clock::time_point now) {
    if (!settling.empty() && now - lastChange > mostSilence)
        GiveUp("a service never sees the end of " + settling.front()->Name(), *settling.front());
    if (!tunnel) {
        if (isRunning && now - lastChange > mostSilence) GiveUp("the client neither connects nor returns");
    } else if (tunnel->IsBroken()) {
        if (now - tunnel->BrokenSince() > mostSilence) GiveUp("the client does not leave " + tunnel->Name());
    } else if (now - tunnel->LastProgress() > mostSilence) {
        GiveUp("nothing moves any more on " + tunnel->Name(), *tunnel);
    }
}

void Storm::PrintProgress() {
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    std::cout << "storm: " << std::fixed << std::setprecision(0) << std::setw(5) << elapsed.count() << " s  "
              << static_cast<double>(Received()) / megabyte << " MB, " << surroundings.openings
              << " sessions, " << tunnels << " tunnels, " << runs << " runs, " << faults << " faults"
              << std::endl;
    nextProgress = Clock::now() + progressEvery;
}

void Storm::Fault(const std::string& text) {
    if (++faults <= mostFaultsPrinted)
        std::cout << "FAULT: seed " << surroundings.seed << ", " << text << std::endl;
}

void Storm::GiveUp(const std::string& text, const Tunnel& stuck) {
    for (const Opening* opening : stuck.Living()) std::cout << "lives: " << *opening << '\n';
    GiveUp(text);
}

void Storm::GiveUp(const std::string& text) {
    Fault(text);
    PrintReport();
    std::cout << "storm: FAILED" << std::endl;
    std::_Exit(EXIT_FAILURE);
}

void Storm::PrintReport() {
    PrintProgress();
    ledger.Print(std::cout);
    std::cout << "runs\n"
              << std::setw(16) << runs << "  of the client, of these\n"
              << std::setw(16) << exceptions << "  ended by an exception\n"
              << "faults\n"
              << std::setw(16) << faults << "  things that must not be" << std::endl;
}

}  // namespace storm
