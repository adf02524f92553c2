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
std::atomic<long> skippedSeconds{0};

// Where asio waits for a socket. It asks before the socket is connected, when it is another one than later.
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

// Puts `connected` in the place of `socket`, blocking or not, and waited for, as it was.
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
    for (const int peer : peers) close(peer);
    Require(OpenDescriptors() == openBefore, "descriptors are closed");
}

int SealedWorld::Connect(int socket, std::uint16_t port) {
    const auto peer = directory(port);
    if (!peer) return Refuse();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return Refuse();
    // What is said fits into the kernel; what is heard soon does not, until it is read.
    constexpr int ourBytes = 1 << 20, theirBytes = 1 << 16;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &ourBytes, sizeof ourBytes);
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &theirBytes, sizeof theirBytes);
    Replace(socket, ends[1]);
    peers.push_back(ends[0]);
    send(ends[0], peer->says.data(), peer->says.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (peer->ending != Peer::StaysSilent)
        shutdown(ends[0], peer->ending == Peer::GoesDeaf ? SHUT_RD : SHUT_WR);
    return 0;
}

bool SealedWorld::Listen() {
    static char chunk[65536];
    bool any = false;
    for (const int peer : peers) {
        ssize_t got;
        while ((got = recvfrom(peer, chunk, sizeof chunk, MSG_DONTWAIT, nullptr, nullptr)) > 0) {
            any = true;
            if (peer == peers.front()) heard.append(chunk, static_cast<std::size_t>(got));
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

// Every line of the log is put together, and goes nowhere.
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

// Taking the place of this call takes it from the sanitizer, which would have looked at the buffer.
extern "C" ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
    const std::size_t piece = world != nullptr ? std::min(size, world->PieceBytes()) : size;
    fuzz::Require(__asan_region_is_poisoned(buffer, size) == nullptr, "a buffer that may be written");
    return syscall(SYS_recvfrom, socket, buffer, piece, flags, nullptr, nullptr);
}

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    addrinfo numeric = hints != nullptr ? *hints : addrinfo{};
    numeric.ai_flags |= AI_NUMERICHOST;  // nobody is asked
    return real(node, service, &numeric, result);
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (clock == CLOCK_MONOTONIC) time->tv_sec += fuzz::skippedSeconds;
    return static_cast<int>(result);
}

extern "C" int epoll_ctl(int epoll, int operation, int descriptor, epoll_event* event) noexcept {
    if (operation == EPOLL_CTL_ADD) fuzz::watches[descriptor] = {epoll, *event};
    if (operation == EPOLL_CTL_DEL) fuzz::watches.erase(descriptor);
    return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, descriptor, event));
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
    // asio is built without timers of the kernel's, so it says here how long it wants to wait.
    constexpr int withoutTimers = 300000;  // then it waits for the resolver's thread
    const int patience = timeout == withoutTimers ? timeout : 0;
    const long ready = syscall(SYS_epoll_pwait, epoll, events, most, patience, nullptr, 0);
    if (ready == 0 && (world == nullptr || !world->Listen()))
        fuzz::skippedSeconds += (timeout + 999) / 1000;  // all delays are seconds
    return static_cast<int>(ready);
}
