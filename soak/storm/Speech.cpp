#include "soak/storm/Speech.h"

#include <algorithm>
#include <array>
#include <utility>

#include "lab/wire/ControlMessage.h"
#include "lab/wire/Frame.h"
#include "lab/wire/Signing.h"

namespace storm {

void Speech::Written(std::size_t size) {
    buffer.Consume(size);
    written += size;
    while (!marks.empty() && marks.front().position <= written) {
        marks.front().onWritten();
        marks.pop_front();
    }
}

void Speech::Frame(std::uint8_t type, std::string_view session, std::string_view payload) {
    const auto header = lab::EncodeHeader(type, payload.size(), session);
    buffer.Append({header.data(), header.size()});
    buffer.Append(payload);
    queued += header.size() + payload.size();
}

void Speech::Control(const std::vector<lab::Member>& members, std::function<void()> onWritten) {
    hasSigned = true;
    Frame(lab::controlFrame, lab::noSession, lab::Sign(password, members));
    if (onWritten) marks.push_back({queued, std::move(onWritten)});
}

void Speech::Welcome() { Control(lab::Welcome("a storm")); }

void Speech::Open(Opening& opening, unsigned short port, Opening* replaced) {
    Control(lab::NewSession(opening.id, port), [&opening, replaced] {
        opening.isAsked = true;
        if (replaced != nullptr) replaced->facts.isReplaced = true;
    });
}

void Speech::End(Opening& opening) {
    Control(lab::EndSession(opening.id), [&facts = opening.facts] {
        facts.isEnded = true;
        facts.Stop(Clock::now());
    });
}

void Speech::Data(Opening& opening, std::size_t size) {
    const auto header = lab::EncodeHeader(lab::dataFrame, size, opening.id);
    buffer.Append({header.data(), header.size()});
    opening.down.Fill(opening.composedDown, buffer.Reserve(size), size);
    buffer.Commit(size);
    queued += header.size() + size;
    opening.composedDown += size;
    marks.push_back({queued, [&opening, size] { opening.facts.sentDown += size; }});
}

void Speech::Noise(Random& random) {
    const std::string some(Draw(random, 1, 3000), 'n');
    switch (Draw(random, 0, 11)) {
        case 0: return Frame(lab::heartbeatFrame, lab::noSession, "");
        case 1: return Frame(lab::heartbeatFrame, "heartbeat-of-ids", some);
        case 2: return Frame(lab::reservedFrame, lab::noSession, some);
        case 3: return Frame(static_cast<std::uint8_t>(Draw(random, 4, 255)), lab::noSession, some);
        case 4: return Frame(lab::dataFrame, "nobody-has-this-", some);
        case 5: return Frame(lab::dataFrame, lab::noSession, "");
        case 6: return Frame(lab::controlFrame, lab::noSession, some);
        case 7: return Frame(lab::controlFrame, lab::noSession, "");
        case 8: return Control({{"method", R"("unheard-of")"}, {"session", R"("nobody-has-this-")"}});
        case 9: return Control(lab::Conflict());
        case 10: return Control({{"method", R"("new_session")"}, {"session", R"("without-any-port")"}});
        default: return Control(lab::EndSession("nobody-has-this-"));
    }
}

void Speech::BeginHeader(Random& random) {
    const auto header =
        lab::EncodeHeader(lab::dataFrame, Draw(random, 0, lab::maxPayloadBytes), "0123456789abcdef");
    buffer.Append({header.data(), Draw(random, 1, header.size() - 1)});
}

// The payload has the stream's next bytes, so that only their number can be wrong.
void Speech::BeginPayload(Random& random, Opening& opening) {
    const std::size_t size = Draw(random, 1, lab::maxPayloadBytes), part = Draw(random, 0, size - 1);
    const auto header = lab::EncodeHeader(lab::dataFrame, size, opening.id);
    buffer.Append({header.data(), header.size()});
    opening.down.Fill(opening.composedDown, buffer.Reserve(part), part);
    buffer.Commit(part);
}

void Speech::TooLarge(Random& random) {
    const std::size_t size = OneIn(random, 2) ? lab::maxPayloadBytes + 1 : Draw(random, 131073, 0xFFFFFFFF);
    const auto header = lab::EncodeHeader(lab::dataFrame, size, lab::noSession);
    buffer.Append({header.data(), header.size()});
}

void Speech::BadSignature() {
    Frame(lab::controlFrame, lab::noSession,
          lab::Sign("another-secret", lab::Welcome("not from the server")));
}

void Speech::Throw(Random& random) {
    auto members = lab::NewSession("ends-all-of-this", 1);
    OneIn(random, 2) ? members[3].second = R"("no number")" : members[2].second = R"("localhost")";
    Control(members);
}

}  // namespace storm
