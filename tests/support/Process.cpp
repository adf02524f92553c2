#include "tests/support/Process.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "tests/support/Eventually.h"

namespace support {

namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers(texts.size() + 1);  // the last one stays null
    std::transform(texts.begin(), texts.end(), pointers.begin(),
                   [](std::string& text) { return text.data(); });
    return pointers;
}

std::filesystem::path Proc(pid_t pid, const char* name) {
    return std::filesystem::path("/proc") / std::to_string(pid) / name;
}

}  // namespace

Process::Process(std::vector<std::string> arguments, std::vector<std::string> environment)
    : outputFile(folder.Path() / "output"), errorsFile(folder.Path() / "errors") {
    Start(std::move(arguments), std::move(environment), -1);
}

Process::Process(std::vector<std::string> arguments, std::vector<std::string> environment, int output) {
    Start(std::move(arguments), std::move(environment), output);
}

void Process::Start(std::vector<std::string> arguments, std::vector<std::string> environment, int output) {
    const std::vector<char*> argv = Pointers(arguments);
    const std::vector<char*> envp = Pointers(environment);
    const pid_t parent = getpid();
    pid = fork();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid == 0) Become(argv.data(), envp.data(), parent, output);
}

// Between fork and exec: only calls that are safe when other threads existed.
void Process::Become(char* const arguments[], char* const environment[], pid_t parent, int output) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed for taking too long must not leave it behind
    if (getppid() != parent) _exit(127);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(output < 0 ? creat(outputFile.c_str(), 0600) : output, STDOUT_FILENO);
    dup2(output < 0 ? creat(errorsFile.c_str(), 0600) : output, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);  // so that Descriptors counts its own, not ours
    execve(arguments[0], arguments, environment);
    _exit(127);
}

Process::~Process() {
    Signal(SIGKILL);
    Wait();
    RemoveSharedClock();
}

// libfaketime, which tests preload to make a process's clock run faster, shares the time among the process
// and its children, and removes the memory for it only when the process ends in order.
void Process::RemoveSharedClock() const {
    sem_unlink(("/faketime_sem_" + std::to_string(pid)).c_str());
    shm_unlink(("/faketime_shm_" + std::to_string(pid)).c_str());
}

bool Process::IsRunning() {
    int result = 0;
    if (!status && waitpid(pid, &result, WNOHANG) == pid) {
        status = WIFEXITED(result) ? WEXITSTATUS(result) : -WTERMSIG(result);
    }
    return !status;
}

void Process::Signal(int number) {
    if (IsRunning()) kill(pid, number);
}

std::optional<int> Process::Wait(std::chrono::milliseconds ceiling) {
    Eventually([this] { return !IsRunning(); }, ceiling);
    return status;
}

std::size_t Process::Status(const char* field) const {
    std::ifstream lines(Proc(pid, "status"));
    const std::string start = std::string(field) + ":";
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(start, 0) == 0) return std::stoul(line.substr(start.size()));
    }
    return 0;
}

std::size_t Process::Descriptors() const {
    std::error_code gone;
    const std::filesystem::directory_iterator list(Proc(pid, "fd"), gone);
    return static_cast<std::size_t>(std::distance(begin(list), end(list)));
}

}  // namespace support
