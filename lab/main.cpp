#include <asio.hpp>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "lab/AgentFiles.h"
#include "lab/Lab.h"
#include "lab/Listener.h"
#include "lab/Options.h"

/// The lab as a program: reports to standard output, and stops on a signal.
namespace {

/// A slow HTTP client holds a thread of the API for some time; it must not hold the process for longer than
/// this.
constexpr std::chrono::seconds stopPatience{3};

void Print(const std::string& line) { std::cout << line << std::endl; }

class Program {
public:
    explicit Program(const lab::Options& givenOptions)
        : options(givenOptions),
          lab(io, options.ports, {}, {options.agent.deviceId, options.apiVersion}, Print,
              options.frameBytes) {}

    void Run() {
        Announce();
        WaitForStop();
        WaitForReportSignal();
        WaitForReportTime();
        io.run();  // until a signal
        Stop();
    }

private:
    void Announce() {
        const auto at = [this](unsigned short port) { return lab::TextOf({options.ports.address, port}); };
        if (!options.configFile.empty())
            lab::WritePrivateFile(options.configFile, lab::AgentConfiguration(options.agent, lab.SsoPort()));
        if (!options.environmentFile.empty())
            lab::WritePrivateFile(options.environmentFile, lab::AgentEnvironment(options.agent));
        Print("sso " + at(lab.SsoPort()));
        Print("api http://" + at(lab.ApiPort()));
        Print("tunnel " + at(lab.TunnelPort()));
        if (!options.configFile.empty()) Print("config " + options.configFile);
        if (!options.environmentFile.empty()) Print("env " + options.environmentFile);
        Print("ready");
    }

    void WaitForStop() {
        stopSignals.async_wait([this](std::error_code, int) { io.stop(); });
    }

    void Stop() {
        lab.Stop();
        reportSignal.cancel();
        timer.cancel();
        io.restart();
        io.run_for(stopPatience);
        lab.Events().Totals();
        if (!io.stopped()) std::_Exit(EXIT_SUCCESS);
    }

    void WaitForReportSignal() {
        reportSignal.async_wait([this](std::error_code error, int) {
            if (error) return;
            lab.Events().Totals();
            WaitForReportSignal();
        });
    }

    void WaitForReportTime() {
        if (options.reportEvery.count() == 0) return;
        timer.expires_after(options.reportEvery);
        timer.async_wait([this](std::error_code error) {
            if (error) return;
            lab.Events().Totals();
            WaitForReportTime();
        });
    }

    const lab::Options& options;
    asio::io_context io{1};
    lab::Lab lab;
    asio::signal_set stopSignals{io, SIGINT, SIGTERM};
    asio::signal_set reportSignal{io, SIGUSR1};
    asio::steady_timer timer{io};
};

}  // namespace

int main(int argc, char** argv) {
    // The lab goes on when the terminal or the pipe that its lines go to is closed.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const lab::Options options = lab::ReadOptions(argc, argv);
        Program(options).Run();
        return EXIT_SUCCESS;
    } catch (const lab::ExitNow& now) {
        return now.status;
    } catch (const std::exception& error) {
        std::cerr << "tunnel-lab: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
