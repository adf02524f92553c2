#include "soak/Plan.h"

#include <algorithm>
#include <array>

namespace soak {

using std::chrono::milliseconds;

const char* NameOf(Ending ending) {
    constexpr std::array<const char*, endings> names = {
        "ended by the service", "ended by the client",       "reset by the client",
        "reset by the service", "left by a closing service", "refused by the service"};
    return names.at(static_cast<std::size_t>(ending));
}

// Without the standard library's distributions, because their draws differ from one library to the next, and
// a seed should always mean the same.
std::uint64_t Draw(Random& random, std::uint64_t low, std::uint64_t high) {
    return low + random() % (high - low + 1);
}

namespace {

/// No session takes longer than some seconds, with all its pauses.
constexpr std::size_t mostPieces = 1000;

bool OneIn(Random& random, std::uint64_t count) { return Draw(random, 1, count) == count; }

milliseconds DrawTime(Random& random, std::uint64_t low, std::uint64_t high) {
    return milliseconds(Draw(random, low, high));
}

/// Every order of magnitude is as likely as the others, so most sessions are small, and most bytes are in
/// large ones.
std::uint64_t DrawSize(Random& random) {
    const std::uint64_t limit = std::uint64_t{1} << Draw(random, 4, 23);
    return Draw(random, 8, limit);
}

EndPlan DrawEnd(Random& random) {
    EndPlan end;
    end.bytesToSend = DrawSize(random);
    end.maxPieceBytes = std::max(std::size_t{1} << Draw(random, 6, 17), end.bytesToSend / mostPieces);
    if (OneIn(random, 3)) end.pause = DrawTime(random, 1, 20);
    return end;
}

/// More than all kernels' buffers on the way take, so that the rest waits in one of the programs.
constexpr std::uint64_t backlogBytes = 5000000;

void DrawStall(Random& random, EndPlan& end, std::uint64_t longest) {
    end.stallAt = Draw(random, 8, 300000);
    end.stall = DrawTime(random, 200, longest);
}

/// The client ends while much waits in the agent for the service, which goes on reading before the agent's
/// delay is over: it has to get everything.
void DrawBacklogAtEnd(Random& random, Plan& plan) {
    plan.client.bytesToSend = Draw(random, backlogBytes, 2 * backlogBytes);
    plan.client.maxPieceBytes = 131072;
    plan.client.pause = {};
    plan.service.stallAt = Draw(random, 8, 20000);
    plan.service.stall = DrawTime(random, 100, 250);
}

/// The client reads on, and has to get everything as well.
void DrawClientStall(Random& random, Plan& plan) {
    DrawStall(random, plan.client, 1000);
    plan.service.bytesToSend = plan.client.stallAt + Draw(random, 0, backlogBytes);
    plan.service.maxPieceBytes = 131072;
}

Ending DrawEnding(Random& random) {
    const auto lot = Draw(random, 1, 20);
    if (lot <= 8) return Ending::ServiceCloses;
    if (lot <= 14) return Ending::ClientCloses;
    if (lot <= 16) return Ending::ClientResets;
    if (lot <= 18) return Ending::ServiceResets;
    return lot == 19 ? Ending::ServiceVanishes : Ending::ServiceRefuses;
}

void Apply(Random& random, Plan& plan) {
    switch (plan.ending) {
        case Ending::ServiceCloses: plan.service.finish = Finish::Shutdown; break;
        case Ending::ClientCloses: plan.client.finish = Finish::Shutdown; break;
        case Ending::ClientResets: plan.client.resetAfter = DrawTime(random, 5, 1500); break;
        case Ending::ServiceResets: plan.service.resetAfter = DrawTime(random, 5, 1500); break;
        case Ending::ServiceVanishes: plan.service.finish = Finish::Close; break;
        case Ending::ServiceRefuses: break;
    }
}

}  // namespace

Plan DrawPlan(Random& random) {
    Plan plan;
    plan.ending = DrawEnding(random);
    plan.client = DrawEnd(random);
    plan.service = DrawEnd(random);
    if (OneIn(random, 12)) DrawStall(random, plan.service, 4000);
    if (OneIn(random, 25)) DrawClientStall(random, plan);
    if (plan.ending == Ending::ClientCloses && OneIn(random, 4)) DrawBacklogAtEnd(random, plan);
    Apply(random, plan);
    return plan;
}

Plan DrawSmallPlan(Random& random) {
    constexpr std::uint64_t mostBytes = 4096;
    Plan plan;
    plan.ending = DrawEnding(random);
    for (EndPlan* end : {&plan.client, &plan.service}) end->bytesToSend = Draw(random, 8, mostBytes);
    Apply(random, plan);
    for (EndPlan* end : {&plan.client, &plan.service})
        if (end->resetAfter.count() > 0) end->resetAfter = DrawTime(random, 5, 100);
    return plan;
}

}  // namespace soak
