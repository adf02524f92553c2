#include "soak/storm/Sessions.h"

#include <algorithm>
#include <utility>

#include "lab/wire/Frame.h"
#include "soak/storm/Service.h"

namespace storm {

namespace {

/// Whether server and service are done with it. It has no meaning once the tunnel is broken.
bool IsOver(const Opening& opening) {
    const Facts& facts = opening.facts;
    if (facts.isRefused) return facts.isDisconnected || facts.isReplaced;
    return opening.service->IsOver() && (facts.isDisconnected || facts.isReplaced || facts.isEnded);
}

bool IsTimeToEnd(const Opening& opening, Clock::time_point now) {
    const Facts& facts = opening.facts;
    const OpeningPlan& plan = opening.plan;
    if (opening.isClosing || !opening.isAsked) return false;
    if (plan.ending == Ending::ServerMidway) return now - opening.openedAt >= plan.serverEndsAfter;
    return plan.ending == Ending::ServerWhenDone && facts.receivedDown == plan.down &&
           facts.receivedUp == plan.up;
}

}  // namespace

Sessions::Sessions(asio::io_context& loop, std::uint64_t tunnelNumber, Surroundings& storm,
                   Random& tunnelRandom, Speech& toAgent, Hearing& fromAgent)
    : io(loop),
      number(tunnelNumber),
      surroundings(storm),
      random(tunnelRandom),
      speech(toAgent),
      hearing(fromAgent) {}

void Sessions::OpenSometimes(std::size_t atOnce) {
    const auto isEnding = [](const Opening* opening) {
        return opening->isClosing || opening->facts.isDisconnected;
    };
    const auto ending = std::count_if(living.begin(), living.end(), isEnding);
    const std::size_t busy = living.size() - static_cast<std::size_t>(ending);
    if (busy < atOnce && living.size() < mostLiving && openings.size() < most) Open();
}

void Sessions::Open() {
    using soak::Direction;
    const std::uint64_t key = ++surroundings.openings, seed = surroundings.seed;
    Random own(soak::Mixed(seed ^ soak::Mixed(key)));
    const OpeningPlan plan = DrawOpening(own);
    openings.push_back(std::make_unique<Opening>(Opening{key, DrawId(plan), plan,
                                                         soak::KeyedStream(seed, key, Direction::ToService),
                                                         soak::KeyedStream(seed, key, Direction::ToClient)}));
    Opening& opening = *openings.back();
    opening.facts.isOddId = opening.id.size() != lab::sessionIdBytes;
    opening.service = std::make_shared<Service>(io, opening, own());
    Opening* const replaced = std::exchange(byId[opening.id], &opening);
    if (replaced != nullptr) replaced->isClosing = true;
    speech.Open(opening, opening.service->Listen(), replaced);
    hearing.Expect(opening);
    living.push_back(&opening);
    speakers.push_back(&opening);
}

std::string Sessions::DrawId(const OpeningPlan& plan) {
    if (plan.takesIdInUse && !living.empty()) {
        const auto& id = living[Draw(random, 0, living.size() - 1)]->id;
        if (id.size() == lab::sessionIdBytes) return id;
    }
    std::string id = std::to_string(number) + "-" + std::to_string(openings.size()) + "-";
    std::size_t size = lab::sessionIdBytes;
    if (plan.hasOddId)
        size = OneIn(random, 2) ? Draw(random, id.size(), size - 1) : Draw(random, size + 1, 40);
    while (id.size() < size) id += static_cast<char>(Draw(random, 'a', 'z'));
    return id;
}

void Sessions::EndSome(Clock::time_point now) {
    const auto isOver = [](const Opening* opening) { return IsOver(*opening); };
    living.erase(std::remove_if(living.begin(), living.end(), isOver), living.end());
    for (Opening* opening : living)
        if (IsTimeToEnd(*opening, now)) End(*opening);
}

void Sessions::End(Opening& opening) {
    opening.isClosing = true;
    speech.End(opening);
}

bool Sessions::Speak() {
    while (!speakers.empty()) {
        const std::size_t place = Draw(random, 0, speakers.size() - 1);
        Opening& opening = *speakers[place];
        if (MaySpeakTo(opening)) {
            const auto size = Draw(random, 1, opening.plan.largestFrame);
            speech.Data(opening, std::min(size, opening.plan.down - opening.composedDown));
            EndInTheMiddle(opening);
            return true;
        }
        std::swap(speakers[place], speakers.back());
        speakers.pop_back();
    }
    return false;
}

// The agent has had no time to pass the last frames on.
void Sessions::EndInTheMiddle(Opening& opening) {
    const bool isTime = opening.composedDown >= opening.plan.serverEndsAt;
    if (opening.plan.ending == Ending::ServerMidway && isTime && !opening.isClosing) End(opening);
}

// Data for an id that was opened again would reach the later session.
bool Sessions::MaySpeakTo(const Opening& opening) const {
    if (opening.composedDown == opening.plan.down || byId.at(opening.id) != &opening) return false;
    return opening.plan.isSpokenToAfterwards || (!opening.isClosing && !opening.facts.isDisconnected);
}

// It goes to a service that still reads, so that an agent that passes a part of a frame on is found out.
void Sessions::BeginPayload() {
    std::vector<Opening*> listeners;
    for (Opening* opening : living) {
        const Facts& facts = opening->facts;
        if (!opening->isClosing && !facts.isDisconnected && !facts.isOddId) listeners.push_back(opening);
    }
    if (!listeners.empty()) speech.BeginPayload(random, *listeners[Draw(random, 0, listeners.size() - 1)]);
}

std::uint64_t Sessions::ReceivedDown() const {
    std::uint64_t bytes = 0;
    for (const auto& opening : openings) bytes += opening->facts.receivedDown;
    return bytes;
}

void Sessions::Abandon() {
    for (const auto& opening : openings) opening->service->Abandon();
}

bool Sessions::AreSettled() const {
    return std::all_of(openings.begin(), openings.end(),
                       [](const auto& opening) { return opening->service->IsOver(); });
}

}  // namespace storm
