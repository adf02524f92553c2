#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/Process.h"
#include "tests/support/ScriptedServer.h"

namespace lab {

using support::Connection;
using support::Process;

TEST(ProgramTest, RefusesABadCommandLineWithAMessage) {
    const std::tuple<std::vector<std::string>, int, std::string> rows[] = {
        {{"--nope"}, 2, "--nope"},
        {{"--sso-port", "65536"}, 2, "--sso-port"},
        {{"--bind", "localhost"}, 2, "--bind"},
        {{"--route", "web"}, 2, "--route: \"web\" is not SERVICE=PORT"},
        {{"--route", "web=0"}, 2, "\"web=0\" is not SERVICE=PORT"},
        {{"--local-port", "=80"}, 2, "\"=80\" is not SERVICE=PORT"},
        {{"--agent-log-level", "loud"}, 2, "--agent-log-level"},
        {{"--device-name", "a\nDEVICE_ID=b"}, 2, "control characters"},
        {{"--reconnect", "-1"}, 2, "--reconnect"},
        {{"--frame-bytes", "0"}, 2, "--frame-bytes"},
        {{"--frame-bytes", "131073"}, 2, "--frame-bytes"},
        {{"--frame-bytes", "16K"}, 2, "--frame-bytes"},
        {{"--write-config", "/nowhere/a.json"}, 1, "cannot write /nowhere/a.json: No such file"},
        {{"--bind", "192.0.2.1"}, 1, "cannot listen on 192.0.2.1:0: "}};
    for (auto [arguments, status, message] : rows) {
        arguments.insert(arguments.begin(), TUNNEL_LAB);
        Process program(arguments);
        EXPECT_EQ(program.Wait(), status);
        EXPECT_NE(program.Errors().find(message), std::string::npos) << program.Errors();
        EXPECT_EQ(program.Output(), "");
    }
}

struct RunningLab {
    support::TemporaryFolder folder;
    std::string config = folder.Path() / "agent.json", environment = folder.Path() / "agent.env";
    Process process;

    explicit RunningLab(const std::string& options = "")
        : process({"/bin/sh", "-c",
                   "exec '" TUNNEL_LAB "' --write-config " + config + " --write-env " + environment + " " +
                       options}) {
        EXPECT_TRUE(Says("\nready\n"));
    }
    bool Says(const std::string& text) {
        return support::Eventually([&] { return process.Output().find(text) != std::string::npos; });
    }
    unsigned short Port(const std::string& service) {
        const std::string output = process.Output();
        std::smatch match;
        std::regex_search(output, match, std::regex(service + " .*:(\\d+)\n"));
        return static_cast<unsigned short>(std::stoi(match[1]));
    }
};

TEST(ProgramTest, AnnouncesItsPortsAndWritesTheAgentsFiles) {
    RunningLab lab(
        "--route web=8080 --route a=b=22 --agent-log-level debug --agent-log-path /x/y --reconnect 7 "
        R"(--device-name "it's \"\$HOME\" \\ \`x\`")");
    const auto port = [&](const char* service) { return std::to_string(lab.Port(service)); };
    EXPECT_EQ(lab.process.Output(), "sso 127.0.0.1:" + port("sso") + "\napi http://127.0.0.1:" + port("api") +
                                        "\ntunnel 127.0.0.1:" + port("tunnel") + "\nconfig " + lab.config +
                                        "\nenv " + lab.environment + "\nready\n");
    EXPECT_EQ(
        std::regex_replace(support::ReadFile(lab.config), std::regex("\\s"), ""),
        R"({"ssoService":{"type":"local-socket","port":)" + port("sso") +
            R"(},"tunnel":{"routes":[{"serviceName":"web","remotePort":8080},{"serviceName":"a=b","remotePort":22}],)"
            R"("log_path":"/x/y","log_level":"debug"},"timers":{"registrationReconnect":7,"tunnelReconnect":7}})");
    Process shell({"/bin/sh", "-c", ". " + lab.environment + "; printf %s \"$DEVICE_ID|$DEVICE_NAME\""});
    EXPECT_EQ(shell.Wait(), 0);
    EXPECT_EQ(shell.Output(), R"(lab-device-1|it's "$HOME" \ `x`)");
}

TEST(ProgramTest, NamesAPortThatIsTaken) {
    RunningLab lab;
    for (const std::string service : {"sso", "api", "tunnel"}) {
        const std::string port = std::to_string(lab.Port(service));
        Process second({TUNNEL_LAB, "--" + service + "-port", port});
        EXPECT_EQ(second.Wait(), 1);
        EXPECT_EQ(second.Errors(),
                  "tunnel-lab: cannot listen on 127.0.0.1:" + port + ": Address already in use\n");
    }
}

TEST(ProgramTest, StopsOnASignalWithAFinalReport) {
    for (const int signal : {SIGINT, SIGTERM}) {
        RunningLab lab;
        auto sso = Connection::To(lab.Port("sso")), api = Connection::To(lab.Port("api")),
             tunnel = Connection::To(lab.Port("tunnel"));
        api.Write("POST /clients/add HT");  // a request that never comes to its end
        const std::string report =
            "report devices=0 routes=0 sessions=0 opened=0 to-device=0 from-device=0 errors=";
        lab.process.Signal(SIGUSR1);
        EXPECT_TRUE(lab.Says(report + "0\n"));
        lab.process.Signal(signal);
        EXPECT_EQ(lab.process.Wait(), 0);
        EXPECT_EQ(sso.ReadToEnd() + tunnel.ReadToEnd(), "");
        const std::string output = lab.process.Output();
        EXPECT_EQ(output.find(report + "1\n"), output.size() - report.size() - 2) << output;
        EXPECT_EQ(lab.process.Errors(), "");
    }
}

TEST(ProgramTest, ReportsEverySoOftenAndStopsAtOnceWhenNobodyHoldsIt) {
    RunningLab lab("--report 1");
    EXPECT_TRUE(lab.Says("\nreport "));
    lab.process.Signal(SIGTERM);
    EXPECT_EQ(lab.process.Wait(std::chrono::milliseconds(2500)), 0);
}

}  // namespace lab
