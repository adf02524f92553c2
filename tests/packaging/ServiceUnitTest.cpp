// The systemd unit is judged by systemd's own tool: how much a service that has been taken over could reach.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/Process.h"

namespace {

using support::ReadFile;

const std::string unit = PACKAGING_FOLDER "/systemd/tunnel-client.service";

// In tenths, as systemd-analyze prints it; -1 when it prints none.
int Exposure(const std::string& text) {
    const support::TemporaryFolder folder;
    const std::string file = folder.Write("tunnel-client.service", text);
    support::Process tool({"/usr/bin/systemd-analyze", "security", "--offline=true", "--no-pager", file});
    tool.Wait();
    const std::string key = "Overall exposure level for tunnel-client.service: ";
    const std::size_t at = tool.Output().rfind(key);
    if (at == std::string::npos) return -1;
    const std::string level = tool.Output().substr(at + key.size(), 4);
    return std::stoi(level) * 10 + std::stoi(level.substr(level.find('.') + 1));
}

TEST(ServiceUnit, LeavesAnIntruderLittle) {
    const std::string shipped = ReadFile(unit);
    EXPECT_LE(Exposure(shipped), 11);
    EXPECT_GE(Exposure(shipped), 0) << "not judged";
    EXPECT_LE(Exposure(shipped + ReadFile(PACKAGING_FOLDER "/systemd/egress.conf")), 10);
    EXPECT_GT(Exposure("[Service]\nExecStart=/usr/sbin/tunnel-client\n"), 80) << "the tool judges nothing";
}

// A bad configuration shows as failed instead of being tried for ever, and HUP, which ends the agent, reloads
// nothing.
TEST(ServiceUnit, StartsAgainButForABadConfiguration) {
    const std::string shipped = "\n" + ReadFile(unit);
    for (const char* line : {"\nRestart=always\n", "\nRestartPreventExitStatus=1\n", "\nDynamicUser=yes\n",
                             "\nEnvironmentFile=/etc/tunnel-client/environment\n"})
        EXPECT_NE(shipped.find(line), std::string::npos) << line;
    EXPECT_EQ(shipped.find("\nExecReload="), std::string::npos);
}

}  // namespace
