#include "soak/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace soak {

namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers(texts.size() + 1);  // the last one stays null
    std::transform(texts.begin(), texts.end(), pointers.begin(),
                   [](std::string& text) { return text.data(); });
    return pointers;
}

void Check(int result, const char* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
}

// Between fork and exec. Of our descriptors the program sees none but these.
[[noreturn]] void Become(char* const arguments[], char* const environment[], pid_t parent, int output) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    execve(arguments[0], arguments, environment);
    _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(asio::io_context& io, std::vector<std::string> arguments,
                           std::vector<std::string> environment, OnLine lineHandler)
    : output(io), onLine(std::move(lineHandler)) {
    std::array<int, 2> ends{};
    Check(pipe2(ends.data(), O_CLOEXEC), "pipe");
    fcntl(ends[1], F_SETPIPE_SZ, 1048576);  // so that the program rarely has to wait for us; it works without
    const auto argv = Pointers(arguments), envp = Pointers(environment);
    const pid_t parent = getpid();
    pid = fork();
    if (pid == 0) Become(argv.data(), envp.data(), parent, ends[1]);
    close(ends[1]);
    output.assign(ends[0]);
    Check(pid, "fork");
    Read();
}

ChildProcess::~ChildProcess() {
    Signal(SIGKILL);
    waitpid(pid, nullptr, 0);
}

void ChildProcess::Signal(int number) const {
    kill(pid, number);
}  // not reaped before the end: the pid is ours

void ChildProcess::Read() {
    output.async_read_some(asio::buffer(chunk), [this](std::error_code error, std::size_t size) {
        if (error) return void(ended = true);
        text.append(chunk.data(), size);
        TellLines();
        Read();
    });
}

void ChildProcess::TellLines() {
    std::size_t start = 0;
    for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        onLine(text.substr(start, end - start));
        start = end + 1;
    }
    text.erase(0, start);
}

std::size_t ChildProcess::Descriptors() const {
    std::error_code gone;
    const std::filesystem::directory_iterator list("/proc/" + std::to_string(pid) + "/fd", gone);
    return static_cast<std::size_t>(std::distance(begin(list), end(list)));
}

std::size_t ChildProcess::Status(const char* field) const {
    std::ifstream lines("/proc/" + std::to_string(pid) + "/status");
    const std::string start = std::string(field) + ":";
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(start, 0) == 0) return std::stoul(line.substr(start.size()));
    return 0;
}

}  // namespace soak
