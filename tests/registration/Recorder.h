#pragma once

#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/ScriptedPeers.h"
#include "tests/support/ScriptedServer.h"

/// Hears one request on each connection, answers the next of its replies, byte for byte, and hangs up; after
/// the last reply connections are refused.
class Recorder {
public:
    using Reader = std::string (*)(support::Connection&);

    Recorder(Reader read, const std::vector<std::string>& replies) {
        std::vector<support::Conversation> conversations(replies.size());
        for (std::size_t i = 0; i < replies.size(); ++i)
            conversations[i] = [this, read, reply = replies[i]](support::Connection& connection) {
                heard.push_back(read(connection));
                connection.Write(reply);
            };
        server.emplace(std::move(conversations));
    }
    unsigned short Port() const { return server->Port(); }
    /// Every request so far, in order. Stops the server.
    const std::vector<std::string>& Heard() {
        server.reset();
        return heard;
    }

private:
    std::vector<std::string> heard;
    std::optional<support::ScriptedServer> server;
};

/// What `call` throws, or "" when it does not.
template <typename Call>
std::string Thrown(Call call) {
    try {
        call();
        return "";
    } catch (const std::exception& e) {
        return e.what();
    }
}

/// The name of a table's row for its test.
inline constexpr auto nameOfRow = [](const auto& row) { return std::string(row.param.name); };
