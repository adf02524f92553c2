// Loads the input as a configuration file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "core/LoadConfiguration.h"
#include "fuzz/SealedWorld.h"

using namespace nox::tunnel_client;

namespace {

void Load(const std::string& path) {
    const char* const argv[] = {"tunnel-client", path.c_str()};
    const Configuration loaded = LoadConfiguration(2, argv);
    fuzz::Require(loaded.registration.ssoHost == "127.0.0.1" && loaded.registration.deviceType == "dvr",
                  "the fixed values");
    fuzz::Require(
        loaded.tunnel.tunnelHeartbeatSeconds == 30 && loaded.log.level >= 0 && loaded.log.level <= 5,
        "the ranges");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static const int environment = setenv("DEVICE_TYPE", "dvr", 1) + setenv("DEVICE_NAME", "name", 1);
    static const int file = memfd_create("configuration", MFD_CLOEXEC);
    const bool written = ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size);
    fuzz::Require(environment == 0 && written, "a file and its environment");
    try {
        Load("/proc/self/fd/" + std::to_string(file));
    } catch (const std::invalid_argument&) {  // the JSON library's errors are of this kind too
    } catch (const std::out_of_range& error) {
        fuzz::Require(error.what() == std::string("stoi"), "only a number that is too large is out of range");
    }
    return 0;
}
