#include <gtest/gtest.h>

#include "tests/support/ScriptedServer.h"

namespace support {

TEST(ScriptedServerTest, FinishThrowsTheFirstFailure) {
    ScriptedServer server(
        {[](Connection& peer) { peer.Read(2); }, [](Connection&) { throw std::logic_error("second"); }});
    Connection::To(server.Port()).Write("x");
    Connection::To(server.Port()).ReadToEnd();
    EXPECT_THROW(server.Finish(), std::system_error);
}

}  // namespace support
