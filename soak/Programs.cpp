#include "soak/Programs.h"

#include <sstream>
#include <utility>

#include "lab/AgentFiles.h"

namespace soak {

namespace {

/// At level debug the agent logs the life of each session, and nothing for each piece of data.
lab::AgentSettings Settings(const std::vector<Door>& doors) {
    lab::AgentSettings settings;
    for (const Door& door : doors) settings.routes.emplace_back(door.service, door.devicePort);
    settings.logLevel = "debug";
    settings.reconnect = std::chrono::seconds(2);
    return settings;
}

std::string WriteConfiguration(const std::filesystem::path& folder, const std::vector<Door>& doors,
                               unsigned short ssoPort) {
    auto path = (folder / "agent.json").string();
    lab::WritePrivateFile(path, lab::AgentConfiguration(Settings(doors), ssoPort));
    return path;
}

std::vector<std::string> Environment() {
    const lab::AgentSettings settings;
    return {"DEVICE_ID=" + settings.deviceId,
            "DEVICE_TYPE=" + settings.deviceType,
            "DEVICE_NAME=" + settings.deviceName,
            "MAC_ADDRESS=" + settings.macAddress,
            "DVR_USERNAME=" + settings.dvrUsername,
            "DVR_PASSWORD=" + settings.dvrPassword,
            std::string("LD_PRELOAD=") + FAKETIME_LIBRARY,
            "FAKETIME=+0 x" + std::to_string(Agent::clockSpeed),
            "ASAN_OPTIONS=verify_asan_link_order=0"};
}

}  // namespace

Server::Server(asio::io_context& loop, const std::filesystem::path& folder, const std::vector<Door>& doors,
               const std::function<unsigned short()>& portPicker, OnLine lineHandler)
    : io(loop),
      log(folder / "server.log"),
      ssoPort(portPicker()),
      tunnelPort(portPicker()),
      onLine(std::move(lineHandler)) {
    arguments = {LAB_PROGRAM,
                 "--sso-port",
                 std::to_string(ssoPort),
                 "--api-port",
                 std::to_string(portPicker()),
                 "--tunnel-port",
                 std::to_string(tunnelPort)};
    for (const Door& door : doors)
        arguments.insert(arguments.end(),
                         {"--local-port", door.service + "=" + std::to_string(door.clientPort)});
}

void Server::Start() {
    process = std::make_unique<ChildProcess>(io, arguments, std::vector<std::string>{},
                                             [this](const std::string& line) {
                                                 log << line << std::endl;
                                                 onLine(ReadServerLine(line), line);
                                             });
}

Agent::Agent(asio::io_context& io, const std::filesystem::path& folder, const std::vector<Door>& doors,
             unsigned short ssoPort, const OnLine& lineHandler)
    : log(folder / "agent.log"),
      process(io, {AGENT_PROGRAM, WriteConfiguration(folder, doors, ssoPort)}, Environment(),
              [this, lineHandler](const std::string& line) {
                  log << line << std::endl;
                  lineHandler(ReadAgentLine(line));
              }) {}

Holdings Agent::Holds() const {
    const support::Process& running = process.Process();
    return {running.Descriptors(), running.Status("Threads"), running.Status("RssAnon")};
}

}  // namespace soak
