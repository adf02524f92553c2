#include "soak/storm/Hearing.h"

#include <utility>
#include <vector>

#include "lab/wire/Frame.h"
#include "soak/storm/Speech.h"

namespace storm {

namespace {

constexpr std::size_t mostDataBytes = 16384;
constexpr int mostFramesOfOddId = 20;  // the agent never counts them as written, so it pauses for good

std::vector<std::string> Names(const std::string& json) {
    std::vector<std::string> names;
    for (const auto& member : lab::Members(json)) names.push_back(member.first);
    return names;
}

}  // namespace

std::string IdOnWire(const std::string& id) {
    const auto header = lab::EncodeHeader(lab::dataFrame, 0, id);
    return std::string(lab::DecodeHeader(header.data()).session);
}

Hearing::Hearing(std::function<void(const std::string&)> faultHandler) : onFault(std::move(faultHandler)) {}

void Hearing::Expect(Opening& opening) { expected[opening.id].push_back(&opening); }

void Hearing::Received(std::size_t bytes, bool hasSigned) {
    reader.Received(bytes);
    try {
        while (const auto frame = reader.Next(lab::maxPayloadBytes)) Handle(*frame, hasSigned);
    } catch (const std::exception& error) {
        onFault(std::string("the agent sent what cannot be read: ") + error.what());
    }
}

void Hearing::Handle(const lab::FrameReader::View& frame, bool hasSigned) {
    if (!isVerified && frame.type != lab::controlFrame) return onFault("the first frame was not verify");
    if (frame.type == lab::dataFrame) return HandleData(frame);
    if (frame.session != lab::noSession) onFault("a frame that is not data carries an id");
    if (frame.type == lab::controlFrame) return HandleControl(std::string(frame.payload));
    if (frame.type != lab::heartbeatFrame || !frame.payload.empty())
        return onFault("a frame of type " + std::to_string(frame.type) + " with " +
                       std::to_string(frame.payload.size()) + " bytes");
    if (!hasSigned) onFault("a heartbeat before the server had shown its signature");
}

void Hearing::HandleData(const lab::FrameReader::View& frame) {
    const auto found = onWire.find(frame.session);
    if (found == onWire.end())
        return onFault("data of a session that is not open: " + std::string(frame.session));
    Opening& opening = *found->second;
    if (frame.payload.empty() || frame.payload.size() > mostDataBytes)
        onFault("a data frame of " + std::to_string(frame.payload.size()) + " bytes");
    Facts& facts = opening.facts;
    facts.wrongUp += opening.up.CountWrong(facts.receivedUp, frame.payload);
    facts.receivedUp += frame.payload.size();
    bytesOfSessions += frame.payload.size();
    if (++opening.framesUp > mostFramesOfOddId && facts.isOddId)
        onFault("an id that has not 16 characters goes on after its 20th frame");
}

void Hearing::HandleControl(const std::string& json) {
    const lab::ControlMessage message(json);
    if (!message.IsSignedWith(password)) return onFault("a signature that does not fit: " + json);
    if (!isVerified) return HandleVerify(message, json);
    if (Names(json) != std::vector<std::string>{"method", "session", "timestamp", "noncestr", "sign"})
        return onFault("other members, or another order: " + json);
    const std::string method = message.Text("method"), id = message.Text("session");
    if (method == "connected-session") return HandleConnected(id);
    if (method == "disconnect-session") return HandleDisconnected(id);
    onFault("an unknown method: " + json);
}

void Hearing::HandleVerify(const lab::ControlMessage& message, const std::string& json) {
    const std::vector<std::string> names{"method",  "username",  "message",  "deviceId",
                                         "version", "timestamp", "noncestr", "sign"};
    if (Names(json) != names || message.Text("method") != "verify" || message.Text("version") != "1.0")
        onFault("the first message is not verify as it should be: " + json);
    isVerified = true;
}

void Hearing::HandleConnected(const std::string& id) {
    auto& waiting = expected[id];
    if (waiting.empty()) return onFault("connected-session for what nobody has opened: " + id);
    Opening* const opening = waiting.front();
    waiting.pop_front();
    opening->isConnected = true;
    connected[id] = onWire[IdOnWire(id)] = opening;
}

void Hearing::HandleDisconnected(const std::string& id) {
    const auto found = connected.find(id);
    if (found == connected.end()) return onFault("disconnect-session for what is not connected: " + id);
    Facts& facts = found->second->facts;
    if (facts.isDisconnected) onFault("disconnect-session twice: " + id);
    facts.isDisconnected = true;
}

}  // namespace storm
