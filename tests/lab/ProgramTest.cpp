#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <string>
#include <vector>

#include "lab/ScriptedServer.h"
#include "tests/support/Eventually.h"
#include "tests/support/Process.h"

namespace lab {

using support::Process;

struct CommandLine {
    const char* name;
    std::vector<std::string> arguments;
    int status;
    std::string message;
};
class Program : public testing::TestWithParam<CommandLine> {};
TEST_P(Program, EndsWithAMessage) {
    std::vector<std::string> arguments{TUNNEL_LAB};
    arguments.insert(arguments.end(), GetParam().arguments.begin(), GetParam().arguments.end());
    Process program(arguments);
    EXPECT_EQ(program.Wait(), GetParam().status);
    EXPECT_NE(program.Errors().find(GetParam().message), std::string::npos) << program.Errors();
    EXPECT_EQ(program.Output(), "");
}
INSTANTIATE_TEST_SUITE_P(
    CommandLines, Program,
    testing::Values(
        CommandLine{"Unknown", {"--nope"}, 2, "--nope"}, CommandLine{"Surplus", {"x"}, 2, "x"},
        CommandLine{"NoValue", {"--write-env"}, 2, "--write-env"},
        CommandLine{"PortTooLarge", {"--sso-port", "65536"}, 2, "--sso-port"},
        CommandLine{"PortNegative", {"--api-port", "-1"}, 2, "--api-port"},
        CommandLine{"PortNoNumber", {"--tunnel-port", "80x"}, 2, "--tunnel-port"},
        CommandLine{"HostName", {"--bind", "localhost"}, 2, "--bind"},
        CommandLine{"RouteWithoutPort", {"--route", "web"}, 2, "--route: \"web\" is not SERVICE=PORT"},
        CommandLine{"RouteToPortZero", {"--route", "web=0"}, 2, "\"web=0\" is not SERVICE=PORT"},
        CommandLine{"LocalPortWithoutService", {"--local-port", "=80"}, 2, "\"=80\" is not SERVICE=PORT"},
        CommandLine{"LogLevel", {"--agent-log-level", "loud"}, 2, "--agent-log-level"},
        CommandLine{"LineFeed", {"--device-name", "a\nDEVICE_ID=b"}, 2, "control characters"},
        CommandLine{"Reconnect", {"--reconnect", "-1"}, 2, "--reconnect"},
        CommandLine{"NoSuchFolder",
                    {"--write-config", "/nowhere/a.json"},
                    1,
                    "cannot write /nowhere/a.json: No such file"},
        CommandLine{"ForeignAddress", {"--bind", "192.0.2.1"}, 1, "cannot listen on 192.0.2.1:0: "}),
    [](const auto& row) { return std::string(row.param.name); });

std::string Match(const std::string& text, const std::string& pattern) {
    std::smatch match;
    return std::regex_search(text, match, std::regex(pattern)) ? match[1].str() : "";
}

struct RunningLab {
    support::TemporaryFolder folder;
    std::string config = folder.Path() / "agent.json", environment = folder.Path() / "agent.env";
    Process process;

    explicit RunningLab(const std::vector<std::string>& more = {}) : process(Arguments(more)) {
        EXPECT_TRUE(
            support::Eventually([&] { return process.Output().find("\nready\n") != std::string::npos; }));
    }
    std::vector<std::string> Arguments(const std::vector<std::string>& more) {
        std::vector<std::string> all{TUNNEL_LAB, "--write-config", config, "--write-env", environment};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    std::string Port(const std::string& service) { return Match(process.Output(), service + " .*:(\\d+)\n"); }
};

TEST(ProgramTest, AnnouncesItsPortsAndWritesTheAgentsFiles) {
    RunningLab lab({"--route", "web=8080", "--route", "a=b=22", "--agent-log-level", "debug",
                    "--agent-log-path", "/x/y", "--reconnect", "7", "--device-name",
                    R"(it's "$HOME" \ `x`)"});
    const std::string sso = lab.Port("sso");
    EXPECT_EQ(lab.process.Output(), "sso 127.0.0.1:" + sso + "\napi http://127.0.0.1:" + lab.Port("api") +
                                        "\ntunnel 127.0.0.1:" + lab.Port("tunnel") + "\nconfig " +
                                        lab.config + "\nenv " + lab.environment + "\nready\n");
    std::string config = support::ReadFile(lab.config);
    config = std::regex_replace(config, std::regex("\\s"), "");
    EXPECT_EQ(
        config,
        R"({"ssoService":{"type":"local-socket","port":)" + sso +
            R"(},"tunnel":{"routes":[{"serviceName":"web","remotePort":8080},{"serviceName":"a=b","remotePort":22}],)"
            R"("log_path":"/x/y","log_level":"debug"},"timers":{"registrationReconnect":7,"tunnelReconnect":7}})");
    Process shell({"/bin/sh", "-c", ". " + lab.environment + "; printf %s \"$DEVICE_ID|$DEVICE_NAME\""});
    EXPECT_EQ(shell.Wait(), 0);
    EXPECT_EQ(shell.Output(), R"(lab-device-1|it's "$HOME" \ `x`)");
}

TEST(ProgramTest, NamesAPortThatIsTaken) {
    RunningLab lab;
    for (const std::string service : {"sso", "api", "tunnel"}) {
        Process second({TUNNEL_LAB, "--" + service + "-port", lab.Port(service)});
        EXPECT_EQ(second.Wait(), 1);
        EXPECT_EQ(second.Errors(), "tunnel-lab: cannot listen on 127.0.0.1:" + lab.Port(service) +
                                       ": Address already in use\n");
    }
}

class StopsOn : public testing::TestWithParam<int> {};
TEST_P(StopsOn, ASignalWithAFinalReport) {
    RunningLab lab;
    const auto connect = [&](const char* service) {
        return Connection::To(static_cast<unsigned short>(std::stoi(lab.Port(service))));
    };
    auto sso = connect("sso"), api = connect("api"), tunnel = connect("tunnel");
    api.Write("POST /clients/add HT");  // a request that never comes to its end
    const std::string report =
        "report devices=0 routes=0 sessions=0 opened=0 to-device=0 from-device=0 errors=";
    lab.process.Signal(SIGUSR1);
    EXPECT_TRUE(
        support::Eventually([&] { return lab.process.Output().find(report + "0\n") != std::string::npos; }));
    lab.process.Signal(GetParam());
    EXPECT_EQ(lab.process.Wait(), 0);
    EXPECT_EQ(sso.ReadToEnd() + tunnel.ReadToEnd(), "");
    const std::string output = lab.process.Output();
    EXPECT_EQ(output.find(report + "1\n"), output.size() - report.size() - 2) << output;
    EXPECT_EQ(lab.process.Errors(), "");
}
INSTANTIATE_TEST_SUITE_P(Signals, StopsOn, testing::Values(SIGINT, SIGTERM));

TEST(ProgramTest, ReportsEverySoOftenAndStopsAtOnceWhenNobodyHoldsIt) {
    RunningLab lab({"--report", "1"});
    EXPECT_TRUE(
        support::Eventually([&] { return lab.process.Output().find("\nreport ") != std::string::npos; }));
    lab.process.Signal(SIGTERM);
    EXPECT_EQ(lab.process.Wait(std::chrono::milliseconds(2500)), 0);
}

}  // namespace lab
