#include "fuzz/SealedWorld.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sanitizer/asan_interface.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <map>
#include <utility>

#include "log/Log.h"

namespace fuzz {

namespace {

SealedWorld* world = nullptr;
// The monotonic clock, which nothing but PassTime moves. Other threads read it, too.
std::atomic<long> clockNanoseconds{1000000000000};

// Where asio waits for a socket. It asks before the socket is connected, and Connect puts another one in its
// place.
struct Watch {
    int epoll;
    epoll_event event;
};
std::map<int, Watch> watches;

long OpenDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

int Refuse() {
    errno = ECONNREFUSED;
    return -1;
}

// Puts `connected` in the place of `socket`; it blocks, and asio waits for it, if that was so for `socket`.
void Replace(int socket, int connected) {
    fcntl(connected, F_SETFL, fcntl(socket, F_GETFL));
    const auto watch = watches.find(socket);
    dup3(connected, socket, O_CLOEXEC);
    close(connected);
    if (watch == watches.end()) return;
    syscall(SYS_epoll_ctl, watch->second.epoll, EPOLL_CTL_ADD, socket, &watch->second.event);
}

}  // namespace

void Require(bool condition, const char* promise) {
    if (condition) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

SealedWorld::SealedWorld(Directory whoAnswers, std::size_t piece)
    : directory(std::move(whoAnswers)),
      pieceBytes(std::max<std::size_t>(piece, 1)),
      openBefore(OpenDescriptors()) {
    world = this;
}

SealedWorld::~SealedWorld() {
    world = nullptr;
    watches.clear();
    for (const Line& line : lines) close(line.descriptor);
    Require(OpenDescriptors() == openBefore, "descriptors are closed");
}

int SealedWorld::Connect(int socket, std::uint16_t port) {
    auto peer = directory(port);
    if (!peer) return Refuse();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return Refuse();
    // The kernel has room for all texts of a peer, but soon none for bytes that the peer does not read.
    constexpr int ourBytes = 1 << 20, theirBytes = 1 << 16;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &ourBytes, sizeof ourBytes);
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &theirBytes, sizeof theirBytes);
    Replace(socket, ends[1]);
    const Instant due = Instant(clockNanoseconds) + peer->says.front().pause;
    lines.push_back({ends[0], std::move(*peer), 0, due});
    if (due == Instant(clockNanoseconds)) Speak(lines.back());
    return 0;
}

void SealedWorld::Speak(Line& line) {
    const auto& says = line.peer.says;
    const std::string& text = says[line.next++].text;
    send(line.descriptor, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (line.next < says.size()) {
        line.due += says[line.next].pause;
    } else if (line.peer.ending != Peer::StaysSilent) {
        shutdown(line.descriptor, line.peer.ending == Peer::GoesDeaf ? SHUT_RD : SHUT_WR);
    }
}

void SealedWorld::PassTime(std::chrono::milliseconds limit) {
    Instant until = Instant(clockNanoseconds) + limit;
    Line* speaker = nullptr;
    for (Line& line : lines) {
        if (line.next == line.peer.says.size() || line.due > until) continue;
        until = line.due;
        speaker = &line;
    }
    clockNanoseconds = until.count();
    if (speaker != nullptr) Speak(*speaker);
}

bool SealedWorld::IsSilent() const {
    return std::all_of(lines.begin(), lines.end(),
                       [](const Line& line) { return line.next == line.peer.says.size(); });
}

std::size_t SealedWorld::NextReadBytes() {
    if (smallReads == 0) return SIZE_MAX;
    --smallReads;
    return pieceBytes;
}

bool SealedWorld::Listen() {
    static char chunk[65536];
    bool any = false;
    for (const Line& line : lines) {
        ssize_t got;
        while ((got = recvfrom(line.descriptor, chunk, sizeof chunk, MSG_DONTWAIT, nullptr, nullptr)) > 0) {
            any = true;
            if (&line == &lines.front()) heard.append(chunk, static_cast<std::size_t>(got));
        }
    }
    return any;
}

const std::string& SealedWorld::Heard() {
    Listen();
    return heard;
}

}  // namespace fuzz

using fuzz::world;

// The log is formatted in full, at its highest level, and discarded.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::Require(std::freopen("/dev/null", "w", stdout) != nullptr, "a place for the log");
    std::signal(SIGPIPE, SIG_IGN);  // as in the agent
    return nox::tunnel_client::LogStart(nullptr, nox::tunnel_client::logVerbose, 1);
}

extern "C" int connect(int socket, const sockaddr* address, socklen_t) {
    const auto* to = reinterpret_cast<const sockaddr_in*>(address);
    const bool loopback = to->sin_family == AF_INET && to->sin_addr.s_addr == htonl(INADDR_LOOPBACK);
    return loopback && world != nullptr ? world->Connect(socket, ntohs(to->sin_port)) : fuzz::Refuse();
}

// The sanitizer would have checked the buffer in its own version of this call, so it is checked here.
extern "C" ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
    const std::size_t piece = world != nullptr ? std::min(size, world->NextReadBytes()) : size;
    fuzz::Require(__asan_region_is_poisoned(buffer, size) == nullptr, "a buffer that may be written");
    return syscall(SYS_recvfrom, socket, buffer, piece, flags, nullptr, nullptr);
}

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    addrinfo numeric = hints != nullptr ? *hints : addrinfo{};
    numeric.ai_flags |= AI_NUMERICHOST;  // so that no name server is asked
    return real(node, service, &numeric, result);
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    constexpr long second = 1000000000;
    const long now = fuzz::clockNanoseconds;
    *time = {now / second, now % second};
    return 0;
}

extern "C" int epoll_ctl(int epoll, int operation, int descriptor, epoll_event* event) noexcept {
    if (operation == EPOLL_CTL_ADD) fuzz::watches[descriptor] = {epoll, *event};
    if (operation == EPOLL_CTL_DEL) fuzz::watches.erase(descriptor);
    return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, descriptor, event));
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
    // asio is built without timers of the kernel's, so `timeout` is the time until its next timer.
    constexpr int withoutTimers = 300000;  // then it waits for the resolver's thread
    const bool isResolving = timeout == withoutTimers && (world == nullptr || world->IsSilent());
    const int patience = isResolving ? timeout : 0;
    const long ready = syscall(SYS_epoll_pwait, epoll, events, most, patience, nullptr, 0);
    if (ready == 0 && world != nullptr && !world->Listen())
        world->PassTime(std::chrono::milliseconds(timeout));
    return static_cast<int>(ready);
}
