#include "tests/lab/LabRunner.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "lab/ControlMessage.h"
#include "tests/support/Eventually.h"

namespace lab {

Timings LabRunner::Short() {
    Timings timings;
    timings.ssoLimit = timings.verifyLimit = timings.quiet = std::chrono::seconds(1);
    timings.stall = std::chrono::milliseconds(300);
    return timings;
}

LabRunner::LabRunner(Ports ports, Timings timings) {
    const auto keep = [this](const std::string& line) {
        const std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
    };
    lab = std::make_unique<Lab>(io, std::move(ports), timings, Lab::Identity{}, keep);
    thread = std::thread([this] { io.run(); });
}

LabRunner::~LabRunner() {
    asio::post(io, [this] { lab->Stop(); });
    thread.join();
}

std::string LabRunner::Line(const std::string& text) {
    std::string found;
    support::Eventually([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto line = std::find_if(lines.begin(), lines.end(), [&](const std::string& candidate) {
            return candidate.find(text) != std::string::npos;
        });
        if (line != lines.end()) found = *line;
        return !found.empty();
    });
    return found;
}

std::size_t LabRunner::CountLines(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    }));
}

std::string LabRunner::Totals() {
    asio::post(io, asio::use_future([this] { lab->Events().Totals(); })).get();
    const std::lock_guard<std::mutex> lock(mutex);
    return lines.back();
}

unsigned short LabRunner::RoutePort(const std::string& deviceId, const std::string& service) {
    const std::string line = Line("route " + deviceId + " " + service + " ");
    return static_cast<unsigned short>(std::stoi(line.substr(line.find(':') + 1)));
}

HttpAnswer Call(unsigned short port, const std::string& method, const std::string& target,
                const std::string& token, const std::string& body) {
    auto connection = Connection::To(port);
    connection.Write(method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                     "\r\nAuthorization: Bearer " + token +
                     "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                     "\r\n\r\n" + body);
    const std::string answer = connection.ReadToEnd();
    return {std::stoi(answer.substr(9)), answer.substr(answer.find("\r\n\r\n") + 4)};
}

std::string AskSso(unsigned short port, const std::string& json) {
    auto connection = Connection::To(port);
    connection.Write(EncodeLength(json.size()) + json);
    const std::string answer = connection.ReadToEnd();
    return answer.size() < 4 || DecodeLength(answer.data()) != answer.size() - 4 ? "" : answer.substr(4);
}

std::string At(const std::string& json, const std::vector<std::string>& path) {
    auto value = nlohmann::json::parse(json, nullptr, false);
    for (const auto& name : path)
        value = value.is_object() && value.contains(name) ? value[name] : nlohmann::json();
    return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

ScriptedDevice::ScriptedDevice(LabRunner& labRunner, std::string id, const std::vector<std::string>& services)
    : deviceId(std::move(id)), runner(labRunner) {
    const auto token = At(AskSso(runner.SsoPort(), R"({"request":"token","scope":"x"})"), {"token"});
    Call(runner.ApiPort(), "DELETE", "/clients/remove/id/" + deviceId, token);
    const auto added =
        Call(runner.ApiPort(), "POST", "/clients/add", token,
             R"({"client":{"deviceId":")" + deviceId +
                 R"(","deviceType":"","name":"","tenantId":"","clientMode":"tunnel-client"}})");
    username = At(added.body, {"data", "tunnelServerCredentials", "username"});
    password = At(added.body, {"data", "tunnelServerCredentials", "password"});
    for (const auto& service : services)
        Call(
            runner.ApiPort(), "POST", "/routes/add", token,
            R"({"route":{"deviceId":")" + deviceId +
                R"(","clientMode":"tunnel-client","port":0,"remoteHost":"127.0.0.1","remotePort":8080,"serviceName":")" +
                service + "\"}}");
}

Connection& ScriptedDevice::Connect() {
    tunnel = Connection::To(runner.TunnelPort());
    SendVerify();
    Expect("message");
    return tunnel;
}

void ScriptedDevice::SendVerify(const std::string& method, const std::string& version) {
    SendControl(R"({"method":")" + method + R"(","username":")" + username +
                R"(","message":"","deviceId":")" + deviceId + R"(","version":")" + version + "\"}");
}

std::string ScriptedDevice::Expect(const std::string& method) {
    std::string text = ReadControl(tunnel);
    const ControlMessage message(text);
    if (message.Text("method") != method || !message.IsSignedWith(password))
        throw std::runtime_error("not a good " + method + ": " + text);
    return text;
}

std::pair<Connection, std::string> ScriptedDevice::Client(const std::string& service) {
    auto client = Connection::To(runner.RoutePort(deviceId, service));
    return {std::move(client), At(Expect("new_session"), {"session"})};
}

std::string ScriptedDevice::ReadData(const std::string& session, std::size_t bytes) {
    std::string data;
    while (data.size() < bytes) {
        const Frame frame = ReadFrame(tunnel);
        if (frame.type != dataFrame || frame.session != session)
            throw std::runtime_error("a frame of type " + std::to_string(frame.type) + " for " +
                                     frame.session);
        data += frame.payload;
    }
    return data;
}

std::size_t WriteUntilStuck(Connection& connection, const std::string& bytes) {
    auto& socket = connection.Socket();
    socket.non_blocking(true);
    std::size_t written = 0;
    const auto advances = [&] {
        std::error_code stuck;
        const auto more = socket.write_some(asio::buffer(bytes) + written, stuck);
        written += more;
        return more > 0;
    };
    while (written < bytes.size() && support::Eventually(advances, std::chrono::milliseconds(500))) {
    }
    return written;
}

std::string Pattern(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t state = 1;
    for (auto& byte : bytes) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

}  // namespace lab
