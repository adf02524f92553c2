#include "soak/storm/Plan.h"

#include <algorithm>
#include <array>

namespace storm {

bool OneIn(Random& random, std::uint64_t count) { return Draw(random, 1, count) == count; }

milliseconds DrawTime(Random& random, std::uint64_t low, std::uint64_t high) {
    return milliseconds(Draw(random, low, high));
}

std::uint64_t DrawSize(Random& random, unsigned bits) {
    return Draw(random, 1, std::uint64_t{1} << Draw(random, 0, bits));
}

const char* NameOf(Ending ending) {
    constexpr std::array<const char*, endings> names = {
        "ended by the service, all done",   "half-closed by the service",
        "closed outright by the service",   "reset by the service",
        "refused by the service",           "ended by the server, all done",
        "ended by the server in the middle"};
    return names.at(static_cast<std::size_t>(ending));
}

const char* NameOf(Break kind) {
    constexpr std::array<const char*, breaks> names = {"half-closed",
                                                       "closed outright",
                                                       "reset",
                                                       "broken by a frame that is too large",
                                                       "broken by a bad signature",
                                                       "broken by an exception in the agent",
                                                       "never answered"};
    return names.at(static_cast<std::size_t>(kind));
}

namespace {

constexpr unsigned largestStreamBits = 23;
constexpr std::uint64_t mostSmallWrites = 1000;  // more of them would only take time
constexpr std::uint64_t mostFrames = 3000;       // of one opening

/// Most streams are small, and most bytes are in large ones.
std::uint64_t DrawStream(Random& random) {
    const auto lot = Draw(random, 1, 8);
    if (lot == 1) return 0;
    return lot <= 6 ? DrawSize(random, largestStreamBits)
                    : Draw(random, 1, std::uint64_t{1} << largestStreamBits);
}

Ending DrawEnding(Random& random) {
    const auto lot = Draw(random, 1, 20);
    if (lot <= 6) return Ending::ServiceWhenDone;
    if (lot <= 9) return Ending::ServiceShutsDown;
    if (lot <= 11) return Ending::ServiceCloses;
    if (lot == 12) return Ending::ServiceResets;
    if (lot == 13) return Ending::ServiceRefuses;
    return lot <= 16 ? Ending::ServerWhenDone : Ending::ServerMidway;
}

void DrawManner(Random& random, OpeningPlan& plan) {
    const auto lot = Draw(random, 1, 30);
    if (lot > 4) return;
    if (lot == 1) {
        plan.manner = Manner::Slow;
        plan.down = std::min<std::uint64_t>(plan.down, 500000);
    } else if (lot <= 3) {
        plan.manner = Manner::Pausing;
        plan.pauseEvery = std::max<std::uint64_t>(DrawSize(random, 20), plan.down / 4);
        plan.pause = DrawTime(random, 5, OneIn(random, 3) ? 400 : 60);
    } else {
        plan.manner = Manner::Never;
        plan.serviceGoesAfter = DrawTime(random, 100, 700);
        constexpr std::array possible{Ending::ServiceResets, Ending::ServiceCloses, Ending::ServerMidway};
        plan.ending = possible.at(Draw(random, 0, possible.size() - 1));
    }
}

void DrawWriting(Random& random, OpeningPlan& plan) {
    const auto lot = Draw(random, 1, 10);
    plan.largestWrite = lot <= 6 ? 131072 : DrawSize(random, 16);
    if (lot == 10) plan.largestWrite = 1;
    plan.up = std::min(plan.up, plan.largestWrite * mostSmallWrites);
    if (OneIn(random, 6)) plan.writePause = DrawTime(random, 1, 5);
}

/// The service begins to read when the session has ended, and when more bytes have been sent than the kernel
/// keeps for it. So the agent still has some of them.
void MakeLag(Random& random, OpeningPlan& plan) {
    plan.isLagging = true;
    plan.manner = Manner::Prompt;
    plan.serviceGoesAfter = milliseconds(0);
    plan.down =
        Draw(random, std::uint64_t{1} << (largestStreamBits - 1), std::uint64_t{1} << largestStreamBits);
    plan.largestFrame = 131072;
    plan.serverEndsAt = Draw(random, plan.down / 2, plan.down);
    plan.serverEndsAfter = std::chrono::seconds(1);
    plan.acceptDelay = DrawTime(random, 50, 300);
}

// The agent drops the data of such a session and soon stops reading from its service, so it does not even see
// the service's end. Only the server can end it.
void MakeOdd(OpeningPlan& plan) {
    plan.hasOddId = true;
    if (plan.ending != Ending::ServiceRefuses) plan.ending = Ending::ServerMidway;
}

}  // namespace

OpeningPlan DrawOpening(Random& random) {
    OpeningPlan plan;
    plan.ending = DrawEnding(random);
    plan.down = DrawStream(random);
    plan.up = DrawStream(random);
    plan.largestFrame = OneIn(random, 3) ? DrawSize(random, 17) : 131072;
    plan.down = std::min(plan.down, plan.largestFrame * mostFrames);
    DrawWriting(random, plan);
    DrawManner(random, plan);
    if (OneIn(random, 8)) plan.acceptDelay = DrawTime(random, 1, 50);
    if (OneIn(random, 40)) MakeOdd(plan);
    plan.takesIdInUse = !plan.hasOddId && OneIn(random, 20);
    plan.isSpokenToAfterwards = OneIn(random, 3);
    plan.serverEndsAt = Draw(random, 1, plan.down + 1);
    plan.serverEndsAfter = DrawTime(random, 0, OneIn(random, 2) ? 20 : 300);
    if (plan.ending == Ending::ServerMidway && !plan.hasOddId && OneIn(random, 5)) MakeLag(random, plan);
    if (plan.ending == Ending::ServiceResets && plan.manner != Manner::Never)
        plan.serviceGoesAfter = DrawTime(random, 1, 200);
    return plan;
}

Mood DrawWriteMood(Random& random) {
    const auto lot = Draw(random, 1, 100);
    if (lot <= 72) return {wholeBuffer, milliseconds(0), DrawTime(random, 5, 200)};
    if (lot <= 78) return {0, milliseconds(0), DrawTime(random, 2, 250)};
    if (lot <= 86) return {DrawSize(random, 12), milliseconds(0), DrawTime(random, 2, 40)};
    if (lot <= 92) return {1, milliseconds(0), DrawTime(random, 1, 10)};
    if (lot <= 96) return {DrawSize(random, 6), milliseconds(1), DrawTime(random, 2, 30)};
    return {DrawSize(random, 17), DrawTime(random, 1, 3), DrawTime(random, 5, 60)};
}

Mood DrawReadMood(Random& random) {
    const auto lot = Draw(random, 1, 100);
    if (lot <= 78) return {wholeBuffer, milliseconds(0), DrawTime(random, 5, 200)};
    if (lot <= 86) return {0, milliseconds(0), DrawTime(random, 2, 250)};
    if (lot <= 94) return {DrawSize(random, 13), milliseconds(0), DrawTime(random, 2, 40)};
    return {DrawSize(random, 16), DrawTime(random, 1, 3), DrawTime(random, 5, 60)};
}

TunnelPlan DrawTunnel(Random& random) {
    TunnelPlan plan;
    plan.life = DrawTime(random, 0, OneIn(random, 5) ? 50 : 3000);
    plan.mostBytes = Draw(random, 0, 400000000);
    plan.isDrained = OneIn(random, 4);
    plan.sessionsAtOnce = OneIn(random, 4) ? DrawSize(random, 6) : Draw(random, 8, 64);
    if (OneIn(random, 40)) {
        plan.breaks = Break::Silence;
        return plan;
    }
    plan.breaks = static_cast<Break>(Draw(random, 0, breaks - 2));
    if (OneIn(random, 2)) plan.breaks = static_cast<Break>(Draw(random, 0, 2));
    if (!plan.isDrained)
        plan.place = OneIn(random, 2) ? Place::InPayload : static_cast<Place>(Draw(random, 0, 1));
    return plan;
}

nox::tunnel_client::Delays DrawDelays(Random& random, bool isPatient) {
    nox::tunnel_client::Delays delays;
    delays.verificationLimit = std::chrono::seconds(1);
    delays.tunnelClose = DrawTime(random, 50, 300);
    delays.sessionClose = isPatient ? DrawTime(random, 1500, 2000) : DrawTime(random, 150, 300);
    delays.sessionRemoval = DrawTime(random, 10, 150);
    delays.stall = DrawTime(random, 20, 50);
    delays.second = DrawTime(random, 1, 10);
    return delays;
}

}  // namespace storm
