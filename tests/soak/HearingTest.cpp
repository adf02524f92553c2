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

/// Two openings of one id, and the faults found in what the agent sends.
struct Ears {
    Ears() {
        for (Opening& each : opening) hearing.Expect(each);
    }
    void Hear(const std::string& bytes, bool hasSigned = true) {
        std::copy(bytes.begin(), bytes.end(), hearing.Room(bytes.size()));
        hearing.Received(bytes.size(), hasSigned);
    }
    std::string Data(int which, std::size_t size) const {
        std::string payload(size, ' ');
        opening[which].up.Fill(opening[which].facts.receivedUp, payload.data(), size);
        return Frame(lab::dataFrame, payload, id);
    }
    static Opening Make(std::uint64_t key) {
        return {
            key, id, {}, KeyedStream(1, key, Direction::ToService), KeyedStream(1, key, Direction::ToClient)};
    }

    std::vector<std::string> faults;
    Opening opening[2] = {Make(1), Make(2)};
    storm::Hearing hearing{[this](const std::string& text) { faults.push_back(text); }};
};

TEST(HearingTest, GivesAnIdsDataToTheOpeningThatWasConnectedLastAndCountsWrongBytes) {
    Ears ears;
    const auto& first = ears.opening[0].facts;
    const auto& second = ears.opening[1].facts;
    ears.Hear(verify);
    ears.Hear(heartbeat + connected + ears.Data(0, 16384));
    EXPECT_EQ(first.receivedUp, 16384U);
    EXPECT_EQ(first.wrongUp, 0U);
    ears.Hear(disconnected + connected + ears.Data(1, 100) + ears.Data(1, 100) + disconnected);
    EXPECT_THAT(ears.faults, testing::IsEmpty());
    EXPECT_EQ(second.receivedUp, 200U);
    EXPECT_GT(second.wrongUp, 90U) << "repeated bytes, of which one may be right by chance";
    EXPECT_TRUE(first.isDisconnected && second.isDisconnected);
}

TEST(HearingTest, FindsFramesAndMessagesThatTheAgentMustNotSend) {
    const std::pair<std::string, std::string> rows[] = {
        {heartbeat, "the first frame was not verify"},
        {verify + Frame(1, "x"), "type 1 with 1 bytes"},
        {verify + Frame(1, "", id), "carries an id"},
        {verify + connected + Frame(0, "", id), "a data frame of 0 bytes"},
        {verify + connected + Ears().Data(0, 16385), "a data frame of 16385 bytes"},
        {verify + Frame(0, "x", id), "not open: " + id},
        {verify + std::string("\0\0\2\0\1", 5) + std::string(16, '0'), "131073"},
        {Control(R"({"method":"verify"})", "another"), "does not fit"},
        {verify + Control(R"({"session":"s","method":"connected-session"})"), "another order"},
        {verify + About("conflict"), "an unknown method"},
        {verify + connected + connected + connected, "nobody has opened"},
        {verify + connected + disconnected + disconnected, "twice"}};
    for (const auto& [bytes, fault] : rows) {
        Ears ears;
        ears.Hear(bytes);
        EXPECT_THAT(ears.faults, ElementsAre(HasSubstr(fault)));
    }
    Ears early, odd;
    early.Hear(verify + heartbeat, false);
    EXPECT_THAT(early.faults, ElementsAre(HasSubstr("before the server had shown")));
    odd.opening[0].facts.isOddId = true;
    odd.Hear(verify + connected);
    for (int frame = 0; frame < 21; ++frame) odd.Hear(odd.Data(0, 1));
    EXPECT_THAT(odd.faults, ElementsAre(HasSubstr("after its 20th frame")));
}

}  // namespace
