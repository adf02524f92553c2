#include <benchmark/benchmark.h>

#include <string>

#include "json/json.h"
#include "tunnel/MessageSigning.h"
#include "tunnel/TunnelMessage.h"

namespace {

using namespace nox::tunnel_client;

const std::string secret = "a password of some length";

json::jobject NewSession() {
    json::jobject message;
    message["method"] = "new_session";
    message["session"] = "0000000000000001";
    message["localHost"] = "127.0.0.1";
    message["localPort"] = 8080;
    return message;
}

void Sign(benchmark::State& state) {
    auto message = NewSession();
    while (state.KeepRunning()) SignMessage(secret, message);
}
BENCHMARK(Sign)->Name("signing/sign");

/// The cost of reading and verifying one control message from the server.
void ParseAndVerify(benchmark::State& state) {
    auto message = NewSession();
    SignMessage(secret, message);
    const std::string text = message.as_string();
    while (state.KeepRunning()) benchmark::DoNotOptimize(ComputeSign(secret, json::jobject::parse(text)));
}
BENCHMARK(ParseAndVerify)->Name("signing/parse_and_verify");

void Encode(benchmark::State& state) {
    const TunnelMessage message(dataFrame, "0000000000000001", std::string(16384, 'x'));
    while (state.KeepRunning()) benchmark::DoNotOptimize(EncodeHeader(message));
}
BENCHMARK(Encode)->Name("framing/encode_header");

void Decode(benchmark::State& state) {
    auto bytes = EncodeHeader(TunnelMessage(dataFrame, "0000000000000001", std::string(16384, 'x')));
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(DecodeHeader(bytes));
    }
}
BENCHMARK(Decode)->Name("framing/decode_header");

}  // namespace
