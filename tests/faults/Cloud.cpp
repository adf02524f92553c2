#include "tests/faults/Cloud.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using support::Connection;

/// What answers every request to the SSO service.
std::string Identity(unsigned short api) {
    return R"({"status":"ok","token":"tok","certificate_id":"cert-1","discovery_data":{"tenantId":"t1",)"
           R"("config":{"tunnelServer":{"serverEndpoint":1,"apiEndpoint":"http://127.0.0.1:)" +
           std::to_string(api) + R"("}}}})";
}

std::string Added(unsigned short tunnel) {
    return R"({"apiVersion":"2.0.0","status":true,"data":{"tunnelServerEndpoint":"127.0.0.1:)" +
           std::to_string(tunnel) + R"(","tunnelServerCredentials":{"username":"u","password":")" +
           Cloud::password + R"("}}})";
}

}  // namespace

std::vector<support::Conversation> Always(const support::Conversation& conversation) {
    return {500, conversation};
}

Cloud::Cloud(const support::Conversation& tunnel, const std::function<void(const std::string&)>& whenAsked)
    : tunnelServer(Always(tunnel)),
      api(Always([whenAsked, reply = support::HttpReply(200, Added(tunnelServer.Port()))](Connection& agent) {
          whenAsked(support::ReadHttpRequest(agent).target);
          agent.Write(reply);
      })),
      sso(Always([whenAsked, reply = support::SsoReply(Identity(api.Port()))](Connection& agent) {
          whenAsked(support::ReadSsoRequest(agent));
          agent.Write(reply);
      })) {}

std::vector<std::string> Cloud::Command(const std::string& level, int pause,
                                        const std::string& logPath) const {
    return {
        AGENT_PROGRAM,
        folder.Write("agent.json",
                     R"({"ssoService":{"type":"local-socket","port":)" + std::to_string(sso.Port()) +
                         R"(},"tunnel":{"routes":[{"serviceName":"web","remotePort":80}],"log_level":")" +
                         level + R"(","log_path":")" + logPath + R"("},"timers":{"registrationReconnect":)" +
                         std::to_string(pause) + R"(,"tunnelReconnect":1}})")};
}

std::vector<std::string> Cloud::Environment(int speed, std::vector<std::string> fault) {
    std::vector<std::string> environment = {"DEVICE_TYPE=recorder", "DEVICE_NAME=North gate",
                                            "MAC_ADDRESS=00:1A:2B:3C:4D:5E",
                                            "ASAN_OPTIONS=verify_asan_link_order=0"};
    if (speed != 1)
        environment.insert(environment.end(), {"LD_PRELOAD=" FAIL_NTH_LIBRARY ":" FAKETIME_LIBRARY,
                                               "FAKETIME=+0 x" + std::to_string(speed)});
    environment.insert(environment.end(), fault.begin(), fault.end());
    return environment;
}

void says::Welcome(Connection& agent) {
    support::ReadControl(agent);
    support::WriteControl(agent, Cloud::password, R"({"method":"message","message":"welcome"})");
}

void says::NewSession(Connection& agent, const std::string& id, unsigned short port) {
    support::WriteControl(agent, Cloud::password,
                          R"({"method":"new_session","session":")" + id +
                              R"(","localHost":"127.0.0.1","localPort":)" + std::to_string(port) + "}");
}

void says::NoAddress(Connection& agent) {
    support::WriteControl(agent, Cloud::password,
                          R"({"method":"new_session","session":"nowhere","localPort":1})");
}

void says::Echo(Connection& agent, const std::string& id) {
    std::string payload, back;
    while (payload.size() < echoBytes) payload += "#" + std::to_string(payload.size());
    payload.resize(echoBytes);
    support::WriteFrame(agent, {lab::dataFrame, id, payload});
    while (back.size() < payload.size()) {
        const support::Frame frame = support::ReadFrame(agent);
        if (frame.payload.find("disconnect-session") < 20) throw std::runtime_error("session ended: " + id);
        if (frame.type == lab::dataFrame && frame.session == id) back += frame.payload;
    }
    EXPECT_EQ(back, payload);
}

void RepeatAll(Connection& agent) {
    for (;;) agent.Write(agent.Read(echoBytes));
}
