#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "log/Log.h"

namespace {

using namespace nox::tunnel_client;
namespace fs = std::filesystem;

/// A call as the data plane makes it, with a text and a number, into a temporary file.
void Call(benchmark::State& state, LogLevel threshold) {
    const fs::path folder = fs::temp_directory_path() / ("bench-log-" + std::to_string(getpid()));
    fs::create_directory(folder);
    const std::string base = folder / "log";
    LogStart(base.c_str(), threshold, 1);
    int count = 0;
    while (state.KeepRunning())
        LogWrite("Bench", __LINE__, logVerbose, "Session %s, number %d", "0000000000000001", ++count);
    LogStop();
    fs::remove_all(folder);
}
BENCHMARK_CAPTURE(Call, below, logInfo)->Name("log/below_threshold");
BENCHMARK_CAPTURE(Call, written, logVerbose)->Name("log/written")->Iterations(200000);

}  // namespace
