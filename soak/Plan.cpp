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

// Not the standard library's distributions: theirs may differ from one library to the next,
// and a seed should not.
std::uint64_t Draw(Random& random, std::uint64_t low, std::uint64_t high) {
    return low + random() % (high - low + 1);
}

namespace {

/// With its pauses, none takes longer than some seconds.
constexpr std::size_t mostPieces = 1000;

bool OneIn(Random& random, std::uint64_t count) { return Draw(random, 1, count) == count; }

milliseconds DrawTime(Random& random, std::uint64_t low, std::uint64_t high) {
    return milliseconds(Draw(random, low, high));
}

/// Every order of magnitude is as likely as the others: most sessions are small, most bytes
/// are in large ones.
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

/// Long enough for every buffer on the way to fill, when so much comes.
void DrawStall(Random& random, EndPlan& end, std::uint64_t longest) {
    end.stallAt = Draw(random, 8, 300000);
    end.stall = DrawTime(random, 200, longest);
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
    if (OneIn(random, 25)) DrawStall(random, plan.client, 1500);
    Apply(random, plan);
    return plan;
}

}  // namespace soak
