// The client of all measurements: one kind of load on a local port, its figures printed as one JSON object.
// It prints "ready" when its sessions are open, and starts when it reads a line, so that whoever measures
// around it can begin there. Usage: bench-load PORT KIND NUMBER [WORD]..., see Kinds.h.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>

#include "bench/load/Kinds.h"

namespace {

using load::Words;

const std::map<std::string, void (*)(std::size_t, const Words&)> kinds = {
    {"prove", load::Prove},   {"bulk", load::Bulk},      {"both", load::Both},
    {"idle", load::Idle},     {"flood", load::Uploads},  {"roundtrip", load::RoundTrip},
    {"beside", load::Beside}, {"skips", load::Skips},    {"sessions", load::Sessions},
    {"queued", load::Queued}, {"drained", load::Drained}};

}  // namespace

int main(int argc, char** argv) {
    try {
        const Words words(argv + 1, argv + argc);
        load::SetTarget(words.at(0));
        kinds.at(words.at(1))(std::stoul(words.at(2)), Words(words.begin() + 3, words.end()));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench-load: %s\n", error.what());
        return 1;
    }
    std::fflush(stdout);
    std::_Exit(0);  // the thread of a stream beside it may still be running
}
