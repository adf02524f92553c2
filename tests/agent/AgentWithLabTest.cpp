// The two real executables, agent and lab, with services on one side and clients on the other.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <regex>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/LogText.h"
#include "tests/support/Process.h"
#include "tests/support/ScriptedServer.h"

namespace {

std::string RandomBytes(std::size_t size, unsigned seed) {
    std::independent_bits_engine<std::mt19937, 8, unsigned> bytes(seed);
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(bytes()); });
    return text;
}

void WriteInPieces(support::Connection& peer, const std::string& bytes, unsigned seed) {
    std::mt19937 sizes(seed);
    for (std::size_t sent = 0; sent < bytes.size();) {
        const std::string piece = bytes.substr(sent, sizes() % 100000 + 1);
        peer.Write(piece);
        sent += piece.size();
    }
}

/// A service on the device: takes everything that `down` holds, sends `up`, and hangs up.
struct Exchange {
    Exchange(unsigned seed, std::size_t size)
        : down(RandomBytes(size, seed)),
          up(RandomBytes(size, seed + 1000)),
          service({[this, seed](support::Connection& peer) {
              received = peer.Read(down.size());
              WriteInPieces(peer, up, seed);
          }}) {}
    std::string down, up, received;
    support::ScriptedServer service;
};

class AgentWithLabTest : public testing::Test {
protected:
    /// Starts both; the routes are named s0, s1, ...
    void Start(const std::vector<unsigned short>& services) {
        const auto config = (folder.Path() / "agent.json").string(),
                   env = (folder.Path() / "agent.env").string();
        std::vector<std::string> arguments = {LAB_PROGRAM, "--write-config", config, "--write-env",
                                              env,         "--reconnect",    "0"};
        for (std::size_t i = 0; i < services.size(); ++i) {
            arguments.insert(arguments.end(),
                             {"--route", "s" + std::to_string(i) + "=" + std::to_string(services[i])});
        }
        lab = std::make_unique<support::Process>(arguments);
        ASSERT_TRUE(support::Eventually([&] { return LabSaid("\nready\n"); })) << lab->Errors();
        // The shell reads the environment file, as an engineer does.
        agent = std::make_unique<support::Process>(std::vector<std::string>{
            "/bin/sh", "-c", "set -a; . '" + env + "'; exec '" AGENT_PROGRAM "' '" + config + "'"});
        ASSERT_TRUE(support::Eventually([&] { return LabSaid("device lab-device-1 connected\n"); }))
            << agent->Output();
    }
    bool LabSaid(const std::string& text) const { return lab->Output().find(text) != std::string::npos; }
    unsigned short RoutePort(std::size_t route) const {
        const std::string output = lab->Output();
        std::smatch match;
        const std::regex line("route lab-device-1 s" + std::to_string(route) + R"( 127\.0\.0\.1:(\d+) -> )");
        return std::regex_search(output, match, line) ? static_cast<unsigned short>(std::stoul(match[1])) : 0;
    }
    /// One client's half of an exchange.
    static std::string Fetch(unsigned short routePort, const Exchange& exchange) {
        auto client = support::Connection::To(routePort);
        WriteInPieces(client, exchange.down, 77);
        return client.ReadToEnd();
    }

    support::TemporaryFolder folder;
    std::unique_ptr<support::Process> lab, agent;
};

TEST_F(AgentWithLabTest, CarriesSeveralSessionsAtOnceBothWaysByteForByte) {
    constexpr std::size_t count = 6, size = 1000000;
    std::vector<std::unique_ptr<Exchange>> exchanges;
    std::vector<unsigned short> ports;
    for (unsigned i = 0; i < count; ++i) {
        exchanges.push_back(std::make_unique<Exchange>(i, size));
        ports.push_back(exchanges.back()->service.Port());
    }
    Start(ports);
    std::vector<std::string> fetched(count);
    std::vector<std::thread> clients;
    for (std::size_t i = 0; i < count; ++i)
        clients.emplace_back([&, i, port = RoutePort(i)] { fetched[i] = Fetch(port, *exchanges[i]); });
    for (std::thread& client : clients) client.join();
    for (std::size_t i = 0; i < count; ++i) {
        exchanges[i]->service.Finish();
        EXPECT_TRUE(fetched[i] == exchanges[i]->up) << i;
        EXPECT_TRUE(exchanges[i]->received == exchanges[i]->down) << i;
    }
    lab->Signal(SIGTERM);
    EXPECT_EQ(lab->Wait(), 0);
    EXPECT_EQ(support::Count(lab->Output(),
                             "closed by device, 1000000 bytes to device, 1000000 bytes from device\n"),
              count)
        << lab->Output();
    EXPECT_TRUE(agent->IsRunning());
}

TEST_F(AgentWithLabTest, ClosesTheClientOfAServiceThatIsNotThere) {
    Start({support::ScriptedServer({}).Port()});
    EXPECT_EQ(support::Connection::To(RoutePort(0)).ReadToEnd(), "");
    EXPECT_TRUE(support::Eventually(
        [&] { return LabSaid("closed by device, 0 bytes to device, 0 bytes from device"); }));
}

TEST_F(AgentWithLabTest, LeavesNothingBehindOfSessionsThatEnded) {
    const std::string large(100000, 'x');
    std::vector<support::Conversation> echoes(
        30, [&](support::Connection& peer) { peer.Write(peer.Read(large.size())); });
    support::ScriptedServer service(echoes);
    Start({service.Port()});
    const std::size_t descriptors = agent->Descriptors();
    for (std::size_t i = 0; i < echoes.size(); ++i) {
        auto client = support::Connection::To(RoutePort(0));
        client.Write(large);
        EXPECT_TRUE(client.ReadToEnd() == large);
    }
    EXPECT_TRUE(support::Eventually([&] { return agent->Descriptors() == descriptors; }));
}

}  // namespace
