#include "tests/support/ScriptedPeers.h"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "lab/wire/Signing.h"

namespace support {

namespace {

bool SameName(const std::string& a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

std::string Line(std::istream& text) {
    std::string line;
    std::getline(text, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

}  // namespace

std::string ReadSsoRequest(Connection& connection) {
    return connection.Read(lab::DecodeLength(connection.Read(4).data()));
}

std::string SsoReply(const std::string& json) { return lab::EncodeLength(json.size()) + json; }

std::string HttpRequest::Header(const std::string& name) const {
    for (const auto& [candidate, value] : headers) {
        if (SameName(candidate, name)) return value;
    }
    return "";
}

HttpRequest ReadHttpRequest(Connection& connection) {
    std::istringstream head(connection.ReadUntil("\r\n\r\n"));
    HttpRequest request;
    std::istringstream(Line(head)) >> request.method >> request.target;
    for (auto line = Line(head); !line.empty(); line = Line(head)) {
        const auto colon = line.find(':');
        const auto value = line.find_first_not_of(' ', colon + 1);
        request.headers.emplace_back(line.substr(0, colon),
                                     value == std::string::npos ? "" : line.substr(value));
    }
    const auto length = request.Header("Content-Length");
    if (!length.empty()) request.body = connection.Read(std::stoul(length));
    return request;
}

std::string HttpReply(int status, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) +
           " \r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

Frame ReadFrame(Connection& connection) {
    const auto bytes = connection.Read(lab::frameHeaderBytes);
    const auto header = lab::DecodeHeader(bytes.data());
    return {header.type, std::string(header.session), connection.Read(header.payloadBytes)};
}

void WriteFrame(Connection& connection, const Frame& frame) {
    const auto header = lab::EncodeHeader(frame.type, frame.payload.size(), frame.session);
    connection.Write(std::string(header.begin(), header.end()) + frame.payload);
}

std::string ReadControl(Connection& connection) {
    Frame frame;
    do {
        frame = ReadFrame(connection);
    } while (frame.type == lab::heartbeatFrame);
    if (frame.type != lab::controlFrame)
        throw std::runtime_error("not a control frame but type " + std::to_string(frame.type));
    return frame.payload;
}

void WriteControl(Connection& connection, const std::string& password, const std::string& json) {
    WriteFrame(connection, {lab::controlFrame, "", lab::Sign(password, json)});
}

}  // namespace support
