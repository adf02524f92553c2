#include "soak/Words.h"

#include <sstream>
#include <string_view>

namespace soak {

namespace {

constexpr std::size_t sessionIdBytes = 16;

bool Contains(const std::string& line, std::string_view text) { return line.find(text) != std::string::npos; }

// "session ID DEVICE SERVICE opened" or "session ID DEVICE SERVICE closed by WHO, N bytes to
// device, M bytes from device"
ServerLine ReadSessionLine(const std::string& line) {
    ServerLine read;
    std::istringstream words(line);
    std::string word, verb;
    words >> word >> read.session >> word >> word >> verb;
    if (verb == "opened") read.kind = ServerLine::Kind::Opened;
    if (verb != "closed") return read;
    read.kind = ServerLine::Kind::Closed;
    words >> word >> read.words.closedBy >> read.words.toDevice >> word >> word >> word >>
        read.words.fromDevice;
    read.words.closedBy.pop_back();  // the comma
    return read;
}

struct Phrase {
    std::string_view before, after;  // around the session's id
    bool AgentWords::*word;
};

// The number of the error tells the service's end from a read that failed.
constexpr std::string_view readEnd = ", (2) ";
constexpr Phrase phrases[] = {
    {"[TunnelClient:323] Session ", " ended", &AgentWords::endedByServer},
    {"ServiceConnection::ListenToService, session ", readEnd, &AgentWords::serviceEnded},
    {"ServiceConnection::ListenToService, session ", ", (", &AgentWords::readFailed},
    {"ServiceConnection::SendAsync, session ", ": (", &AgentWords::writeFailed},
    {"[TunnelClient:224] Received data for unknown session ", "", &AgentWords::forgotten}};

}  // namespace

ServerLine ReadServerLine(const std::string& line) {
    using Kind = ServerLine::Kind;
    if (line == "ready") return {Kind::Ready, "", {}};
    if (line.rfind("session ", 0) == 0) return ReadSessionLine(line);
    if (line.rfind("error client of ", 0) == 0 && Contains(line, " turned away: "))
        return {Kind::TurnedAway, "", {}};
    if (line.rfind("error ", 0) == 0) return {Kind::Error, "", {}};
    if (line.rfind("device ", 0) != 0) return {};
    if (Contains(line, " disconnected: ")) return {Kind::Disconnected, "", {}};
    return Contains(line, " connected") ? ServerLine{Kind::Connected, "", {}} : ServerLine{};
}

AgentLine ReadAgentLine(const std::string& line) {
    if (Contains(line, "[TunnelClient:283] Tunnel server message: ")) return {true, "", nullptr};
    for (const auto& [before, after, word] : phrases) {
        const auto start = line.find(before);
        if (start == std::string::npos) continue;
        const auto id = start + before.size();
        if (line.size() >= id + sessionIdBytes && line.compare(id + sessionIdBytes, after.size(), after) == 0)
            return {false, line.substr(id, sessionIdBytes), word};
    }
    return {};
}

}  // namespace soak
