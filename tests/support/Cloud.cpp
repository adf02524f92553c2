#include "tests/support/Cloud.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace support {

namespace {

/// The answer to every request to the SSO service.
std::string Identity(unsigned short api) {
    return R"({"status":"ok","token":"tok","certificate_id":"cert-1","discovery_data":{"tenantId":"t1",)"
           R"("config":{"tunnelServer":{"serverEndpoint":1,"apiEndpoint":"http://127.0.0.1:)" +
           std::to_string(api) + R"("}}}})";
}

}  // namespace

Cloud::Cloud(const Conversation& tunnel, const std::function<void(const std::string&)>& whenAsked)
    : tunnelServer(Always(tunnel)),
      api(Always([whenAsked, reply = HttpReply(200, ApiReply())](Connection& agent) {
          const HttpRequest request = ReadHttpRequest(agent);
          whenAsked(request.method + " " + request.target + " " + request.Header("Authorization") + " " +
                    request.body);
          agent.Write(reply);
      })),
      sso(Always([whenAsked, reply = SsoReply(Identity(api.Port()))](Connection& agent) {
          whenAsked(ReadSsoRequest(agent));
          agent.Write(reply);
      })) {}

std::string Cloud::ApiReply() const {
    return R"({"apiVersion":"2.0.0","status":true,"data":{"tunnelServerEndpoint":"127.0.0.1:)" +
           std::to_string(TunnelPort()) +
           R"(","tunnelServerCredentials":{"username":"tunnel-user","password":")" + password + R"("}}})";
}

std::vector<std::string> Cloud::Command(const std::string& level, int pause,
                                        const std::string& logPath) const {
    return {
        AGENT_PROGRAM,
        folder.Write("agent.json",
                     R"({"ssoService":{"type":"local-socket","port":)" + std::to_string(SsoPort()) +
                         R"(},"tunnel":{"routes":[{"serviceName":"web","remotePort":80},)"
                         R"({"serviceName":"ssh","remotePort":22}],"log_level":")" +
                         level + R"(","log_path":")" + logPath + R"("},"timers":{"registrationReconnect":)" +
                         std::to_string(pause) + R"(,"tunnelReconnect":"1"}})")};
}

// The loader splits LD_PRELOAD at spaces and colons, which the path of a checkout may have. Therefore it gets
// names without a path, and a folder with links to the files.
std::vector<std::string> Cloud::Environment(double speed, const std::vector<std::string>& more,
                                            std::vector<std::string> libraries) const {
    std::vector<std::string> environment = {"DEVICE_TYPE=recorder",
                                            "DEVICE_NAME=North/gate",
                                            "DEVICE_ID=",
                                            "MAC_ADDRESS=00:1A:2B:3C:4D:5E",
                                            "DVR_USERNAME=u",
                                            "DVR_PASSWORD=p",
                                            "ASAN_OPTIONS=verify_asan_link_order=0"};
    environment.insert(environment.end(), more.begin(), more.end());
    if (speed == 1) return environment;
    libraries.emplace_back(FAKETIME_LIBRARY);
    std::string names;
    for (const std::filesystem::path library : libraries) {
        const auto link = folder.Path() / library.filename();
        if (!std::filesystem::exists(link)) std::filesystem::create_symlink(library, link);
        names += ":" + library.filename().string();
    }
    environment.insert(environment.end(),
                       {"LD_LIBRARY_PATH=" + folder.Path().string(), "LD_PRELOAD=" + names.substr(1),
                        "FAKETIME=+0 x" + std::to_string(speed)});
    return environment;
}

void Echo(Connection& agent, const std::string& id) {
    const std::string payload = Numbered(echoBytes);
    std::string back;
    SendData(agent, payload, id);
    while (back.size() < payload.size()) {
        const Frame frame = ReadFrame(agent);
        if (frame.payload.find("disconnect-session") < 20) throw std::runtime_error("session ended: " + id);
        if (frame.type == lab::dataFrame && frame.session == id) back += frame.payload;
    }
    EXPECT_EQ(back, payload);
}

void RepeatAll(Connection& agent) {
    for (;;) agent.Write(agent.Read(echoBytes));
}

}  // namespace support
