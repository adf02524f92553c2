#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryFolder.h"

namespace support {

/// A program started by a test, its standard output and error kept in files, its standard input empty. It
/// does not outlive this object, nor the thread that started it, however that ends.
class Process {
public:
    /// @param arguments the program's path first
    /// @param environment "NAME=value" each; the program sees these variables and no others
    /// @throws std::system_error when no process can be made; a program that cannot be run
    /// ends with status 127
    explicit Process(std::vector<std::string> arguments, std::vector<std::string> environment = {});
    /// Both of its streams go to that descriptor instead of files. @param output not owned
    Process(std::vector<std::string> arguments, std::vector<std::string> environment, int output);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t Pid() const { return pid; }
    bool IsRunning();
    void Signal(int number);  ///< nothing happens once it has ended
    /// Waits for its end. @return the exit status, or minus the signal that ended it; nothing after `ceiling`
    std::optional<int> Wait(std::chrono::milliseconds ceiling = patience);

    /// What it has written so far.
    std::string Output() const { return ReadFile(folder.Path() / "output"); }
    std::string Errors() const { return ReadFile(folder.Path() / "errors"); }

    /// Of the running process; 0 when it has ended.
    std::size_t ResidentKibibytes() const { return Status("VmRSS"); }
    std::size_t Status(const char* field) const;  ///< a number of its /proc status, such as "Threads"
    std::size_t Descriptors() const;

private:
    void Start(std::vector<std::string> arguments, std::vector<std::string> environment, int output);
    [[noreturn]] void Become(char* const arguments[], char* const environment[], pid_t parent,
                             int output) const;
    void RemoveSharedClock() const;

    TemporaryFolder folder;
    std::string outputFile, errorsFile;
    pid_t pid = -1;
    std::optional<int> status;
};

}  // namespace support
