#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "log/Log.h"
#include "soak/storm/Storm.h"

// tunnel-storm MEGABYTES SEED [LOG]: see scripts/storm.sh, which calls it. LOG is the base path of the
// client's log.
namespace {

std::uint64_t Read(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::invalid_argument("\"" + std::string(text) + "\" is no such number");
    return number;
}

bool Run(int argc, char** argv) {
    constexpr std::uint64_t megabyte = 1000000;
    const std::uint64_t megabytes = Read(argv[1]), seed = Read(argv[2]);
    using namespace nox::tunnel_client;
    argc == 4 ? LogStart(argv[3], logVerbose, 1) : LogSetLevel(logOff);
    const bool good = storm::Storm(megabytes * megabyte, seed).Run();
    if (argc == 4) LogStop();
    std::cout << (good ? "storm: PASSED" : "storm: FAILED") << std::endl;
    return good;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) return std::cerr << "usage: tunnel-storm MEGABYTES SEED [LOG]\n", 2;
    std::signal(SIGPIPE, SIG_IGN);  // as in the agent
    try {
        return Run(argc, argv) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::cerr << "tunnel-storm: " << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
