#include "tests/lab/LabRunner.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "lab/wire/ControlMessage.h"
#include "lab/wire/Signing.h"
#include "tests/support/Eventually.h"

namespace lab {

Timings LabRunner::Short() {
    Timings timings;
    timings.ssoLimit = timings.verifyLimit = timings.quiet = std::chrono::seconds(3);
    return timings;
}

LabRunner::LabRunner(Ports ports, Timings timings, std::size_t frameBytes) {
    const auto keep = [this](const std::string& line) {
        const std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
    };
    lab = std::make_unique<Lab>(io, std::move(ports), timings, Lab::Identity{}, keep, frameBytes);
    thread = std::thread([this] { io.run(); });
}

LabRunner::~LabRunner() {
    asio::post(io, [this] { lab->Stop(); });
    thread.join();
}

std::vector<std::string> LabRunner::Lines(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [&](const std::string& line) { return line.find(text) != std::string::npos; });
    return found;
}

bool LabRunner::Tells(const std::string& text) {
    return support::Eventually([&] { return !Lines(text).empty(); });
}

std::string LabRunner::Totals() {
    asio::post(io, asio::use_future([this] { lab->Events().Totals(); })).get();
    const std::lock_guard<std::mutex> lock(mutex);
    return lines.back();
}

std::string LabRunner::AskSso(const std::string& json) const {
    auto connection = Connection::To(SsoPort());
    connection.Write(SsoReply(json));  // requests and replies are framed alike
    const std::string answer = ReadSsoRequest(connection);
    return answer + connection.ReadToEnd();
}

std::string LabRunner::Token() const {
    return nlohmann::json::parse(AskSso(R"({"request":"token","scope":"x"})"))["token"];
}

std::pair<int, std::string> LabRunner::Call(const std::string& call, const std::string& body,
                                            const std::optional<std::string>& token) const {
    auto connection = Connection::To(lab->ApiPort());
    connection.Write(call + " HTTP/1.1\r\nHost: 127.0.0.2:80\r\nAuthorization: Bearer " +
                     (token ? *token : Token()) + "\r\nContent-Type: application/json\r\nContent-Length: " +
                     std::to_string(body.size()) + "\r\n\r\n" + body);
    const std::string answer = connection.ReadToEnd();
    return {std::stoi(answer.substr(9)), answer.substr(answer.find("\r\n\r\n") + 4)};
}

unsigned short LabRunner::RoutePort(const std::string& deviceId, const std::string& service) {
    const std::string start = "route " + deviceId + " " + service + " ";
    const std::string line = Tells(start) ? Lines(start).front() : "";
    return static_cast<unsigned short>(std::stoi(line.substr(line.find(':') + 1)));
}

std::string ClientBody(const std::string& deviceId, const std::string& more) {
    return R"({"client":{"deviceId":")" + deviceId +
           R"(","deviceType":"t","name":"n","tenantId":"","clientMode":"tunnel-client")" + more + "}}";
}

std::string RouteBody(const std::string& deviceId, const std::string& more) {
    return R"({"route":{"deviceId":")" + deviceId +
           R"(","clientMode":"tunnel-client","port":0,"remoteHost":"127.0.0.1",)" + more + "}}";
}

std::string Bytes(const Frame& frame) {
    const auto header = EncodeHeader(frame.type, frame.payload.size(), frame.session);
    return std::string(header.begin(), header.end()) + frame.payload;
}

std::string VerifyBytes(const std::string& deviceId, const std::string& username, const std::string& password,
                        const std::string& method, const std::string& version) {
    const std::string verify = R"({"method":")" + method + R"(","username":")" + username +
                               R"(","message":"","deviceId":")" + deviceId + R"(","version":")" + version +
                               "\"}";
    return Bytes({controlFrame, "", Sign(password, verify)});
}

ScriptedDevice::ScriptedDevice(LabRunner& labRunner, std::string id, const std::vector<std::string>& services)
    : deviceId(std::move(id)), runner(labRunner) {
    runner.Call("DELETE /clients/remove/id/" + deviceId);
    auto added = nlohmann::json::parse(runner.Call("POST /clients/add", ClientBody(deviceId)).second);
    const auto credentials = added["data"]["tunnelServerCredentials"];
    username = credentials["username"];
    password = credentials["password"];
    for (const auto& service : services)
        runner.Call("POST /routes/add",
                    RouteBody(deviceId, R"("remotePort":8080,"serviceName":")" + service + "\""));
}

void ScriptedDevice::Connect() {
    tunnel = Connection::To(runner.TunnelPort());
    tunnel.Write(VerifyBytes(deviceId, username, password));
    Expect("message");
}

std::string ScriptedDevice::Expect(const std::string& method) {
    const ControlMessage message(ReadControl(tunnel));
    if (message.Text("method") != method || !message.IsSignedWith(password))
        throw std::runtime_error("no good " + method + " but " + message.Text("method"));
    return message.Text("session");
}

std::pair<Connection, std::string> ScriptedDevice::Client() {
    auto client = Connection::To(runner.RoutePort(deviceId, "web"));
    return {std::move(client), Expect("new_session")};
}

}  // namespace lab
