// The floor: the least that any agent with the tunnel's frames must do, to compare ours with. One epoll loop;
// for an upload one read of at most 16384 bytes and one write, for a download a read of the header, one of
// the payload and one write. It gets the results of a registration as arguments, trusts its server, and logs
// nothing. Usage: bench-floor PORT USERNAME PASSWORD DEVICE_ID

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/FloorControl.h"

namespace {

constexpr std::size_t headerBytes = 21;
constexpr std::size_t idBytes = 16;
constexpr std::size_t maxPayload = 131072;
constexpr std::size_t maxRead = 16384;
constexpr char dataFrame = 0;
constexpr char controlFrame = 3;

int ConnectTo(int port, int flags) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno != EINPROGRESS) {
        std::perror("connect");
        std::exit(1);
    }
    return fd;
}

/// Result of a call that failed: 0 when it has to wait for the socket; any other failure ends the program.
std::size_t Bytes(ssize_t result) {
    if (result > 0) return static_cast<std::size_t>(result);
    return 0;
}
bool HasEnded(ssize_t result) { return result == 0 || (result < 0 && errno != EAGAIN); }

struct Session {
    int fd;
    std::string id;
    std::string unsent;  // bytes that the service did not take at once
    bool closed = false;
};

class Floor {
public:
    Floor(int port, std::string user, std::string secret, std::string device)
        : tunnel(ConnectTo(port, 0)), password(std::move(secret)) {
        SendControl({{"method", "verify"},
                     {"username", std::move(user)},
                     {"message", ""},
                     {"deviceId", std::move(device)},
                     {"version", "1.0"}});
        Watch(EPOLL_CTL_ADD, loop, tunnel, EPOLLIN, nullptr);
        Watch(EPOLL_CTL_ADD, tunnelOnly, tunnel, EPOLLIN | EPOLLOUT, nullptr);
    }

    // While the tunnel takes nothing no service is read, and nothing needs to be queued.
    void Run() {
        std::array<epoll_event, 64> events{};
        while (true) {
            const int count =
                epoll_wait(unsent.empty() ? loop : tunnelOnly, events.data(), events.size(), -1);
            for (int i = 0; i < count; ++i) Handle(events[static_cast<std::size_t>(i)]);
            closed.clear();
        }
    }

private:
    static void Watch(int operation, int epoll, int fd, std::uint32_t what, Session* session) {
        epoll_event event{};
        event.events = what;
        event.data.ptr = session;
        epoll_ctl(epoll, operation, fd, &event);
    }

    void Handle(const epoll_event& event) {
        auto* session = static_cast<Session*>(event.data.ptr);
        if (!session) {
            if (!unsent.empty()) SendRest();
            if (event.events & EPOLLIN) ReadTunnel();
        } else if (!session->closed) {
            if (event.events & EPOLLOUT) WriteRest(*session);
            if ((event.events & ~EPOLLOUT) && unsent.empty()) Upload(*session);
        }
    }

    // ---- From the services to the server

    void Upload(Session& session) {
        const ssize_t size = read(session.fd, frame.data() + headerBytes, maxRead);
        if (size > 0) return Send(dataFrame, session.id, static_cast<std::size_t>(size));
        if (!HasEnded(size)) return;
        const std::string id = session.id;
        Close(session);
        SendControl({{"method", "disconnect-session"}, {"session", id}});
    }

    void SendControl(const floor_agent::Members& message) {
        const std::string text = floor_agent::Sign(message, password);
        text.copy(frame.data() + headerBytes, text.size());
        Send(controlFrame, std::string(idBytes, '0'), text.size());
    }

    // The payload stands in the frame already.
    void Send(char type, const std::string& id, std::size_t size) {
        frame[0] = type;
        const std::uint32_t length = htonl(static_cast<std::uint32_t>(size));
        std::memcpy(&frame[1], &length, sizeof length);
        id.copy(&frame[5], idBytes);
        const std::size_t total = headerBytes + size;
        const auto sent = unsent.empty() ? Bytes(send(tunnel, frame.data(), total, MSG_DONTWAIT)) : 0;
        unsent.append(frame.data() + sent, total - sent);
    }

    void SendRest() { unsent.erase(0, Bytes(send(tunnel, unsent.data(), unsent.size(), MSG_DONTWAIT))); }

    // ---- From the server to the services

    void ReadTunnel() {
        if (got < headerBytes && !ReadUpTo(headerBytes)) return;
        std::uint32_t length = 0;
        std::memcpy(&length, &incoming[1], sizeof length);
        length = ntohl(length);
        if (length > maxPayload) std::exit(1);
        if (length > 0 && !ReadUpTo(headerBytes + length)) return;
        got = 0;
        if (incoming[0] == dataFrame) Download(length);
        if (incoming[0] == controlFrame) ActOn(floor_agent::Parse({incoming.data() + headerBytes, length}));
    }

    bool ReadUpTo(std::size_t wanted) {
        const ssize_t size = recv(tunnel, incoming.data() + got, wanted - got, MSG_DONTWAIT);
        if (HasEnded(size)) std::exit(0);
        got += Bytes(size);
        return got == wanted;
    }

    void Download(std::size_t length) {
        const auto found = sessions.find(std::string_view(&incoming[5], idBytes));
        if (found == sessions.end()) return;
        Session& session = *found->second;
        const char* payload = incoming.data() + headerBytes;
        const auto sent = session.unsent.empty() ? Bytes(send(session.fd, payload, length, MSG_NOSIGNAL)) : 0;
        if (sent == length) return;
        if (session.unsent.empty()) Watch(EPOLL_CTL_MOD, loop, session.fd, EPOLLIN | EPOLLOUT, &session);
        session.unsent.append(payload + sent, length - sent);
    }

    void WriteRest(Session& session) {
        session.unsent.erase(
            0, Bytes(send(session.fd, session.unsent.data(), session.unsent.size(), MSG_NOSIGNAL)));
        if (session.unsent.empty()) Watch(EPOLL_CTL_MOD, loop, session.fd, EPOLLIN, &session);
    }

    void ActOn(const floor_agent::Members& message) {
        if (!floor_agent::IsSigned(message, password)) std::exit(1);
        const std::string& method = message.at("method");
        if (method == "new_session") Open(message.at("session"), std::stoi(message.at("localPort")));
        if (method != "end_session") return;
        const auto session = sessions.find(message.at("session"));
        if (session != sessions.end()) Close(*session->second);
    }

    void Open(const std::string& id, int port) {
        SendControl({{"method", "connected-session"}, {"session", id}});
        auto session = std::make_unique<Session>(Session{ConnectTo(port, SOCK_NONBLOCK), id, ""});
        Watch(EPOLL_CTL_ADD, loop, session->fd, EPOLLIN, session.get());
        sessions[id] = std::move(session);
    }

    // An event of it may still be in the list that is being handled.
    void Close(Session& session) {
        session.closed = true;
        close(session.fd);
        const auto found = sessions.find(session.id);
        closed.push_back(std::move(found->second));
        sessions.erase(found);
    }

    int loop = epoll_create1(EPOLL_CLOEXEC);
    int tunnelOnly = epoll_create1(EPOLL_CLOEXEC);
    int tunnel;
    std::string password;
    std::map<std::string, std::unique_ptr<Session>, std::less<>> sessions;
    std::vector<std::unique_ptr<Session>> closed;
    std::array<char, headerBytes + maxRead> frame{};
    std::string unsent;  // the rest of frames that the tunnel did not take at once
    std::array<char, headerBytes + maxPayload> incoming{};
    std::size_t got = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    Floor(std::atoi(argv[1]), argv[2], argv[3], argv[4]).Run();
}
