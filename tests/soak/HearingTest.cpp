#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lab/wire/Frame.h"
#include "lab/wire/Signing.h"
#include "soak/storm/Hearing.h"
#include "soak/storm/Speech.h"

namespace {

using soak::Direction;
using soak::KeyedStream;
using storm::Opening;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string id = "session-00000001";

std::string Frame(std::uint8_t type, const std::string& payload, std::string_view session = lab::noSession) {
    const auto header = lab::EncodeHeader(type, payload.size(), session);
    return std::string(header.data(), header.size()) + payload;
}
std::string Control(const std::string& object, const std::string& secret = storm::password) {
    return Frame(lab::controlFrame, lab::Sign(secret, object));
}
std::string About(const std::string& method) {
    return Control(R"({"method":")" + method + R"(","session":")" + id + R"("})");
}

const std::string verify =
    Control(R"({"method":"verify","username":"user","message":"","deviceId":"device/1","version":"1.0"})");
const std::string connected = About("connected-session"), disconnected = About("disconnect-session");
const std::string heartbeat = Frame(lab::heartbeatFrame, "");

/// Two openings of one id, and what is found wrong with what the agent sends.
struct Ears {
    Ears() {
        hearing.Expect(first);
        hearing.Expect(second);
    }
    void Hear(const std::string& bytes, bool hasSigned = true) {
        std::copy(bytes.begin(), bytes.end(), hearing.Room(bytes.size()));
        hearing.Received(bytes.size(), hasSigned);
    }
    static std::string Data(const Opening& opening, std::size_t size, const std::string& session = id) {
        std::string payload(size, ' ');
        opening.up.Fill(opening.facts.receivedUp, payload.data(), size);
        return Frame(lab::dataFrame, payload, session);
    }
    static Opening Make(std::uint64_t key) {
        return {
            key, id, {}, KeyedStream(1, key, Direction::ToService), KeyedStream(1, key, Direction::ToClient)};
    }

    std::vector<std::string> faults;
    Opening first = Make(1), second = Make(2);
    storm::Hearing hearing{[this](const std::string& text) { faults.push_back(text); }};
};

TEST(HearingTest, GivesAnIdsDataToTheOpeningThatWasConnectedLast) {
    Ears ears;
    ears.Hear(verify);
    ears.Hear(heartbeat + connected + Ears::Data(ears.first, 16384) + disconnected);
    ears.Hear(connected + Ears::Data(ears.second, 1) + disconnected);
    EXPECT_THAT(ears.faults, IsEmpty());
    EXPECT_EQ(ears.first.facts.receivedUp, 16384U);
    EXPECT_EQ(ears.second.facts.receivedUp, 1U);
    EXPECT_EQ(ears.first.facts.wrongUp + ears.second.facts.wrongUp, 0U);
    EXPECT_TRUE(ears.first.facts.isDisconnected && ears.second.facts.isDisconnected);
}

TEST(HearingTest, CountsForeignAndRepeatedBytes) {
    Ears ears;
    ears.Hear(verify + connected + Ears::Data(ears.first, 100) + Ears::Data(ears.first, 100));
    EXPECT_GT(ears.first.facts.wrongUp, 90U) << "a byte may be right by chance";
    ears.Hear(connected + Ears::Data(ears.first, 100));
    EXPECT_GT(ears.second.facts.wrongUp, 90U);
}

struct Wrong {
    const char* name;
    std::string bytes, fault;
    bool hasSigned = true;
};
class HearingFinds : public testing::TestWithParam<Wrong> {};

TEST_P(HearingFinds, WhatTheAgentMustNotSend) {
    Ears ears;
    ears.Hear(GetParam().bytes, GetParam().hasSigned);
    EXPECT_THAT(ears.faults, ElementsAre(HasSubstr(GetParam().fault)));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, HearingFinds,
    testing::Values(
        Wrong{"HeartbeatFirst", heartbeat, "the first frame was not verify"},
        Wrong{"AnotherMessageFirst", connected, "the first message is not verify"},
        Wrong{"EarlyHeartbeat", verify + heartbeat, "before the server had shown", false},
        Wrong{"HeartbeatWithBytes", verify + Frame(1, "x"), "type 1 with 1 bytes"},
        Wrong{"UnknownType", verify + Frame(2, ""), "type 2 with 0 bytes"},
        Wrong{"HeartbeatWithId", verify + Frame(1, "", id), "carries an id"},
        Wrong{"EmptyData", verify + connected + Frame(0, "", id), "a data frame of 0 bytes"},
        Wrong{"LongData", verify + connected + Ears::Data(Ears::Make(1), 16385),
              "a data frame of 16385 bytes"},
        Wrong{"DataBeforeConnected", verify + Frame(0, "x", id), "not open: " + id},
        Wrong{"TooLongAFrame", verify + std::string("\0\0\2\0\1", 5) + std::string(16, '0'), "131073"},
        Wrong{"NoJson", verify + Frame(3, "x"), "cannot be read"},
        Wrong{"WrongSecret", Control(R"({"method":"verify"})", "another"), "does not fit"},
        Wrong{"OtherOrder", verify + Control(R"({"session":"s","method":"connected-session"})"),
              "another order"},
        Wrong{"UnknownMethod", verify + About("conflict"), "an unknown method"},
        Wrong{"ConnectedTooOften", verify + connected + connected + connected, "nobody has opened"},
        Wrong{"DisconnectedFirst", verify + disconnected, "what is not connected"},
        Wrong{"DisconnectedTwice", verify + connected + disconnected + disconnected, "twice"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(HearingTest, AllowsTwentyFramesOfAnIdThatHasNotSixteenCharacters) {
    Ears ears;
    ears.first.facts.isOddId = true;
    ears.Hear(verify + connected);
    for (int frame = 0; frame < 20; ++frame) ears.Hear(Ears::Data(ears.first, 1));
    EXPECT_THAT(ears.faults, IsEmpty());
    ears.Hear(Ears::Data(ears.first, 1));
    EXPECT_THAT(ears.faults, ElementsAre(HasSubstr("after its 20th frame")));
}

}  // namespace
