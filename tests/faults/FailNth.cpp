// Preloaded into the agent: makes one call of one function fail. FAIL_CALL names the function ("new": the
// agent's own allocations), FAIL_AT says which of its calls from main on, from 1, and FAIL_ERRNO with which
// error, which getaddrinfo and pthread_create return themselves.
//
// The moment is announced on standard error. SIGUSR1 sets the wall clock back by a day. SIGTERM ends the
// process in order at its next pause, so that a leak checker gets its turn: within a handler it could meet
// the allocator at work.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

namespace {

const char* chosen = nullptr;
long failAt = 0;
int failErrno = 0;
std::atomic<long> calls{0};
std::atomic<std::time_t> secondsBehind{0};
std::atomic<bool> ending{false};

__attribute__((constructor)) void ReadOrders() {
    std::signal(SIGTERM, [](int) { ending = true; });
    std::signal(SIGUSR1, [](int) { secondsBehind = 86400; });
    const char* at = std::getenv("FAIL_AT");
    const char* number = std::getenv("FAIL_ERRNO");
    failAt = at != nullptr ? std::atol(at) : 0;
    failErrno = number != nullptr ? std::atoi(number) : 0;
    chosen = std::getenv("FAIL_CALL");  // last: from here on calls count
}

bool CallsFrom(const char* file, const void* caller) {
    Dl_info from{};
    return dladdr(caller, &from) != 0 && std::strstr(from.dli_fname, file) != nullptr;
}

bool IsChosen(const char* name) { return chosen != nullptr && std::strcmp(name, chosen) == 0; }

// libfaketime, which tests preload beside this, cannot do without: its own calls are not counted.
bool Due(const char* name, const void* caller) {
    if (!IsChosen(name) || CallsFrom("faketime", caller) || ++calls != failAt) return false;
    constexpr char announcement[] = "the chosen call fails\n";
    syscall(SYS_write, STDERR_FILENO, announcement, sizeof announcement - 1);
    errno = failErrno;
    return true;
}

template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// symbol(parameters) returns `failure` when it is the turn of `name`; otherwise it is the real function.
#define FAILS_AS(failure, result, name, symbol, parameters, arguments)               \
    extern "C" result symbol parameters {                                            \
        static auto* const next = Next<result parameters>(#symbol);                  \
        return Due(#name, __builtin_return_address(0)) ? (failure) : next arguments; \
    }
#define FAILS_WITH(failure, result, name, parameters, arguments) \
    FAILS_AS(failure, result, name, name, parameters, arguments)
#define FAILS(name, parameters, arguments) FAILS_WITH(-1, int, name, parameters, arguments)
#define FAILS_TO_MOVE(name, parameters, arguments) FAILS_WITH(-1, ssize_t, name, parameters, arguments)
#define RETURNS_NUMBER(name, parameters, arguments) FAILS_WITH(failErrno, int, name, parameters, arguments)
#define GIVES_NULL(name, parameters, arguments) FAILS_WITH(nullptr, void*, name, parameters, arguments)

// Sockets. The headers that declare these are left out: types as they are passed will do.
FAILS(socket, (int a, int b, int c) noexcept, (a, b, c))
FAILS(socketpair, (int a, int b, int c, int* d) noexcept, (a, b, c, d))
FAILS(connect, (int a, const void* b, unsigned c), (a, b, c))
FAILS(getsockname, (int a, void* b, unsigned* c) noexcept, (a, b, c))
FAILS(getpeername, (int a, void* b, unsigned* c) noexcept, (a, b, c))
FAILS(getsockopt, (int a, int b, int c, void* d, unsigned* e) noexcept, (a, b, c, d, e))
FAILS(setsockopt, (int a, int b, int c, const void* d, unsigned e) noexcept, (a, b, c, d, e))
FAILS(ioctl, (int a, unsigned long b, void* c) noexcept, (a, b, c))
FAILS(fcntl, (int a, int b, void* c), (a, b, c))
FAILS_TO_MOVE(send, (int a, const void* b, std::size_t c, int d), (a, b, c, d))
FAILS_TO_MOVE(sendmsg, (int a, const void* b, int c), (a, b, c))
FAILS_TO_MOVE(recv, (int a, void* b, std::size_t c, int d), (a, b, c, d))
RETURNS_NUMBER(getaddrinfo, (const char* a, const char* b, const void* c, void** d), (a, b, c, d))
// Waiting, threads, files.
FAILS(poll, (void* a, unsigned long b, int c), (a, b, c))
FAILS(epoll_create1, (int a) noexcept, (a))
FAILS(epoll_wait, (int a, void* b, int c, int d), (a, b, c, d))
FAILS(eventfd, (unsigned a, int b) noexcept, (a, b))
RETURNS_NUMBER(pthread_create, (unsigned long* a, const void* b, void* (*c)(void*), void* d) noexcept,
               (a, b, c, d))
GIVES_NULL(fopen, (const char* a, const char* b), (a, b))
// The agent calls these, because it is built for files beyond 2 GiB; its libraries may call the others.
FAILS_AS(nullptr, void*, fopen, fopen64, (const char* a, const char* b), (a, b))
FAILS_AS(-1, int, fcntl, fcntl64, (int a, int b, void* c), (a, b, c))
// Memory.
GIVES_NULL(calloc, (std::size_t a, std::size_t b) noexcept, (a, b))
GIVES_NULL(realloc, (void* a, std::size_t b) noexcept, (a, b))

// "new" is what the agent's own code asks for, whether or not the C++ library is linked into it; "malloc"
// what the libraries ask for.
extern "C" void* malloc(std::size_t size) noexcept {
    static auto* const next = Next<void*(std::size_t)>("malloc");
    const void* const caller = __builtin_return_address(0);
    const bool counts = IsChosen("new") || IsChosen("malloc");
    return counts && Due(CallsFrom("tunnel-client", caller) ? "new" : "malloc", caller) ? nullptr
                                                                                        : next(size);
}

void* operator new(std::size_t size) {
    static auto* const next = Next<void*(std::size_t)>("_Znwm");
    if (Due("new", __builtin_return_address(0))) throw std::bad_alloc();
    return next(size);
}

// Only adding takes kernel memory, so only adding can fail for a program that makes no mistakes.
extern "C" int epoll_ctl(int a, int operation, int c, void* d) noexcept {
    static auto* const next = Next<int(int, int, int, void*)>("epoll_ctl");
    constexpr int add = 1;
    return operation == add && Due("epoll_ctl", __builtin_return_address(0)) ? -1 : next(a, operation, c, d);
}

// A close that reports an error has closed all the same.
extern "C" int close(int descriptor) {
    static auto* const next = Next<int(int)>("close");
    const int result = next(descriptor);
    return Due("close", __builtin_return_address(0)) ? -1 : result;
}

extern "C" unsigned sleep(unsigned seconds) {
    static auto* const next = Next<unsigned(unsigned)>("sleep");
    const unsigned left = ending ? 0 : next(seconds);
    if (ending) std::exit(0);
    return left;
}

extern "C" std::time_t time(std::time_t* result) noexcept {
    static auto* const next = Next<std::time_t(std::time_t*)>("time");
    const std::time_t now = next(nullptr) - secondsBehind;
    if (result != nullptr) *result = now;
    return now;
}

extern "C" int clock_gettime(clockid_t clock, std::timespec* result) noexcept {
    static auto* const next = Next<int(clockid_t, std::timespec*)>("clock_gettime");
    const int outcome = next(clock, result);
    if (clock == CLOCK_REALTIME) result->tv_sec -= secondsBehind;
    return outcome;
}
