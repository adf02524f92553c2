#include "tests/support/TunnelVerbs.h"

#include "lab/wire/Signing.h"

namespace support {

std::string Accept(Connection& agent) {
    std::string verify = ReadControl(agent);
    Say(agent, R"({"method":"message","message":"welcome"})");
    return verify;
}

void HangUp(Connection& agent) {
    agent.ShutdownSend();
    agent.ReadToEnd();
}

std::string Bytes(const Frame& frame) {
    const auto header = lab::EncodeHeader(frame.type, frame.payload.size(), frame.session);
    return std::string(header.begin(), header.end()) + frame.payload;
}

std::string Control(const std::string& json) {
    return Bytes({lab::controlFrame, "", lab::Sign(password, json)});
}

std::string NewSessionText(unsigned short port, const std::string& id) {
    return R"({"method":"new_session","session":")" + id + R"(","localHost":"127.0.0.1","localPort":)" +
           std::to_string(port) + "}";
}

std::string EndSessionText(const std::string& id) {
    return R"({"method":"end_session","session":")" + id + R"("})";
}

void Say(Connection& agent, const std::string& json) { agent.Write(Control(json)); }

void NewSession(Connection& agent, unsigned short port, const std::string& id) {
    Say(agent, NewSessionText(port, id));
}

void EndSession(Connection& agent, const std::string& id) { Say(agent, EndSessionText(id)); }

void EndTheRun(Connection& agent) {
    Say(agent, R"({"method":"new_session","session":"nowhere","localPort":1})");
}

void SendData(Connection& agent, const std::string& payload, const std::string& id) {
    agent.Write(Bytes({lab::dataFrame, id, payload}));
}

Frame ReadData(Connection& agent) {
    Frame frame;
    do frame = ReadFrame(agent);
    while (frame.type != lab::dataFrame);
    return frame;
}

void AwaitHeartbeat(Connection& agent) {
    while (ReadFrame(agent).type != lab::heartbeatFrame) continue;
}

Heard Listen(Connection& agent, int ends) {
    Heard heard;
    while (ends > 0) {
        const Frame frame = ReadFrame(agent);
        if (frame.type == lab::dataFrame) heard.data[frame.session] += frame.payload;
        if (frame.type != lab::controlFrame) continue;
        heard.control.push_back(frame.payload.substr(0, frame.payload.find(",\"timestamp\"")));
        if (frame.payload.find("disconnect-session") != std::string::npos) --ends;
    }
    return heard;
}

std::string Numbered(std::size_t bytes) {
    std::string text;
    text.reserve(bytes + 20);
    while (text.size() < bytes) text += "#" + std::to_string(text.size());
    text.resize(bytes);
    return text;
}

std::string Megabytes(std::size_t count) { return Numbered(count * 1000000); }

std::vector<Conversation> Always(const Conversation& conversation) { return {500, conversation}; }

}  // namespace support
