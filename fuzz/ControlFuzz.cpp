// Control messages, one a line, each signed as the server would sign it.
#include <sstream>

#include "fuzz/TunnelRun.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
    std::string stream;
    for (std::string line; std::getline(lines, line);) stream += fuzz::ControlFrame(line);
    fuzz::RunTunnel(stream, SIZE_MAX, 1);
    return 0;
}
