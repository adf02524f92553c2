#include <benchmark/benchmark.h>

#include <cstddef>
#include <map>
#include <string>

#include "json/json.h"

namespace {

/// A JSON object of about `bytes` bytes.
using Shape = std::string (*)(std::size_t bytes);

std::string OneText(std::size_t bytes) { return "{\"k\":\"" + std::string(bytes, 'x') + "\"}"; }

std::string Repeated(std::size_t bytes, const std::string& before, const std::string& piece,
                     const std::string& after) {
    std::string text = before + piece;
    while (text.size() < bytes) text += "," + piece;
    return text + after;
}

std::string Members(std::size_t bytes) {
    std::string text = "{\"first\":0";
    for (int i = 0; text.size() < bytes; ++i) text += ",\"member" + std::to_string(i) + "\":\"some text\"";
    return text + "}";
}

std::string Escapes(std::size_t bytes) {
    std::string text = "{\"k\":\"";
    while (text.size() < bytes) text += "\\n\\\"\\\\";
    return text + "\"}";
}

std::string Numbers(std::size_t bytes) { return Repeated(bytes, "{\"k\":[", "-12.5e+3", "]}"); }

std::string Objects(std::size_t bytes) {
    return Repeated(bytes, "{\"k\":[", R"({"name":"a","port":80})", "]}");
}

std::string Brackets(std::size_t bytes) {
    return "{\"k\":" + std::string(bytes / 2, '[') + std::string(bytes / 2, ']') + "}";
}

std::string Blanks(std::size_t bytes) { return "{\"k\":" + std::string(bytes, ' ') + "1}"; }

const std::map<std::string, Shape> shapes = {
    {"one_text", OneText}, {"members", Members},   {"escapes", Escapes}, {"numbers", Numbers},
    {"objects", Objects},  {"brackets", Brackets}, {"blanks", Blanks}};

void Parse(benchmark::State& state, Shape shape) {
    const std::string text = shape(static_cast<std::size_t>(state.range(0)));
    while (state.KeepRunning()) benchmark::DoNotOptimize(json::jobject::parse(text));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

const bool registered = [] {
    for (const auto& [name, shape] : shapes)
        benchmark::RegisterBenchmark(("json/" + name).c_str(), Parse, shape)->Arg(1024)->Arg(131072);
    return true;
}();

}  // namespace
