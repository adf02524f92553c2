#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "log/Log.h"
#include "tests/support/TemporaryFolder.h"

constexpr std::time_t start = 1794685309;  // 01:11:49 in a time zone of ours, half an hour from any full hour
static std::time_t now = start;

// The logger's clock is ours: this program's functions stand in for those of the C library.
extern "C" std::time_t time(std::time_t* result) noexcept {
    if (result != nullptr) *result = now;
    return now;
}
extern "C" int clock_gettime(clockid_t clock, timespec* result) noexcept {
    if (clock != CLOCK_REALTIME) return static_cast<int>(syscall(SYS_clock_gettime, clock, result));
    *result = {start, 7'999'999};
    return 0;
}

using namespace nox::tunnel_client;
using support::ReadFile;
using namespace testing::internal;  // CaptureStdout and its family
using testing::EndsWith;

namespace {

const bool isLocal = setenv("TZ", "OURS-5:30", 1) == 0;
const std::string logStart = "LOG START Sun Nov 15 01:11:49 2026\n";
const std::string logEnd = "LOG END Sun Nov 15 01:11:49 2026";

// Called through a pointer, formats can come from a table: the compiler checks those of direct calls only.
void (*const logWrite)(const char*, int, std::int32_t, const char*, ...) = LogWrite;

class LogTest : public testing::Test {
protected:
    void TearDown() override {
        now = start;
        LogStop();
        LogSetMaxFileSize(0);
        LogSetRotationHours(0);
    }
    std::string FileAt(const char* clock) const { return base + "-2026-11-15-" + clock + ".log"; }
    std::size_t CountFiles() const {
        const std::filesystem::directory_iterator list(folder.Path());
        return static_cast<std::size_t>(std::distance(begin(list), end(list)));
    }
    static void WriteLines(int count) {
        while (count-- > 0) LogWrite("S", 1, logInfo, "with its line feed: 31 b");
    }

    support::TemporaryFolder folder;
    std::string base = folder.Path() / "agent";
    const std::string first = FileAt("01-11-49");
    const std::string second = FileAt("01-11-50");
};

TEST(LogDeathTest, WritesEverythingOnStandardOutputBeforeItIsStarted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process of its own, in which nobody has logged yet
    const auto early = [] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        LogWrite("Early", 7, logVerbose, "bird");
        LogStart(nullptr, logInfo, 0);
        std::exit(0);
    };
    EXPECT_EXIT(early(), testing::ExitedWithCode(0), EndsWith("\n[Early:7] bird\n" + logStart));
}

TEST_F(LogTest, NamesTheFileAfterTheTimeOfOpeningAndStampsLines) {
    EXPECT_EQ(LogStart(base.c_str(), logInfo, 1), 0);
    now += 3600;
    LogWrite("client", 196, logInfo, "version %s", "1");
    EXPECT_EQ(ReadFile(first), logStart + "02:11:49.007 [client:196] version 1\n");
}

TEST_F(LogTest, LetsLevelsUpToItsOwnThroughAndOpensNoFileAtZero) {
    std::string expected;
    CaptureStdout();
    for (std::int32_t threshold = logOff; threshold <= logVerbose; ++threshold) {
        LogStart(base.c_str(), threshold, 0);
        EXPECT_EQ(CountFiles(), threshold == logOff ? 0U : 1U);
        for (std::int32_t level = logError; level <= logVerbose; ++level)
            LogWrite("S", 1, level, "%d", level);
        if (threshold > logOff) expected += "[S:1] " + std::to_string(threshold) + '\n';
        EXPECT_EQ(ReadFile(first), threshold == logOff ? "" : logStart + expected);
    }
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST_F(LogTest, AddsALineFeedWhenTheFormatLacksIt) {
    const std::pair<const char*, const char*> rows[] = {
        {"text", "[S:-1] text\n"}, {"text\n", "[S:-1] text\n"},
        {"%s", "[S:-1] x\n\n"},    {"a\nb", "[S:-1] a\nb\n"},
        {"", "[S:-1] "},           {nullptr, ""}};
    for (const auto& [format, written] : rows) {
        LogStart(base.c_str(), logInfo, 0);
        logWrite("S", -1, logInfo, format, "x\n");
        EXPECT_EQ(ReadFile(first), logStart + written);
    }
}

TEST_F(LogTest, FallsBackToStandardOutputWhenTheFileCannotBeCreated) {
    const std::string missing = folder.Path() / "missing/agent";
    CaptureStderr();
    CaptureStdout();
    EXPECT_EQ(LogStart(missing.c_str(), logInfo, 0), 1);
    LogWrite("S", 1, logInfo, "text");
    LogStop();
    EXPECT_EQ(GetCapturedStdout(), logStart + "[S:1] text\n" + logEnd);
    EXPECT_EQ(GetCapturedStderr(),
              "Attempted to create log " + missing + "-2026-11-15-01-11-49.log\n" +
                  " Cannot open log file, using stdout instead : No such file or directory\n");
}

TEST_F(LogTest, ContinuesTheEndLineOnStandardOutputAndNeverSwitchesIt) {
    CaptureStdout();
    EXPECT_EQ(LogStart("", logInfo, 0), 0);
    EXPECT_EQ(LogStart(nullptr, logInfo, 0), 0);
    LogSetMaxFileSize(1);
    LogSetRotationHours(1);
    now += 3600;
    WriteLines(1);
    now = start;
    EXPECT_EQ(LogStop(), 0);
    EXPECT_EQ(LogStop(), 0);  // nothing is left to end
    EXPECT_EQ(GetCapturedStdout(),
              logStart + logEnd + logStart + "[S:1] with its line feed: 31 b\n" + logEnd);
}

TEST_F(LogTest, ChangesItsLevelAndEndsTheFileWhenSwitchedOff) {
    EXPECT_EQ(LogStart(base.c_str(), 6, 0), 1);
    EXPECT_EQ(CountFiles(), 0U);
    EXPECT_EQ(LogSetLevel(logWarning), 0);
    for (const std::int32_t outOfRange : {-1, 6, 7}) EXPECT_EQ(LogSetLevel(outOfRange), 1);
    LogWrite("S", 1, logInfo, "dropped");
    EXPECT_EQ(LogSetLevelByName("info"), 0);
    LogWrite("S", 2, logInfo, "written");
    EXPECT_EQ(LogSetLevelByName("loud"), 0);
    now += 3600;
    LogSetRotationHours(1);
    LogWrite("S", 3, logError, "dropped");
    EXPECT_EQ(CountFiles(), 1U) << "there is nothing to switch";
    EXPECT_EQ(ReadFile(first), logStart + "[S:2] written\n" + logEnd);
}

TEST(LogLevelFromNameTest, KnowsFiveNamesExactly) {
    const std::pair<const char*, int> names[] = {{"error", 1}, {"warning", 2}, {"info", 3},   {"debug", 4},
                                                 {"", 0},      {"Error", 0},   {"errors", 0}, {"verbose", 5},
                                                 {"erro", 0},  {" info", 0},   {"off", 0},    {"3", 0}};
    for (const auto& [name, level] : names) EXPECT_EQ(LogLevelFromName(name), level) << '"' << name << '"';
}

TEST_F(LogTest, LooksAtTheSizeEveryHundredLines) {
    // 100 lines make a file of 3135 bytes. In 32 bits 1000 times the last two are 704 and 3704.
    const std::pair<std::uint32_t, bool> rows[] = {
        {0, false}, {3, true}, {4, false}, {4294968, true}, {4294971, false}};
    for (const auto& [kilobytes, switches] : rows) {
        LogStart(base.c_str(), logInfo, 0);
        LogSetMaxFileSize(kilobytes);
        ++now;
        WriteLines(99);
        EXPECT_EQ(CountFiles(), 1U) << kilobytes;
        WriteLines(1);
        EXPECT_EQ(ReadFile(second), switches ? "LOG START Sun Nov 15 01:11:50 2026\n" : "") << kilobytes;
        ++now;
        WriteLines(99);
        EXPECT_EQ(CountFiles(), switches ? 2U : 1U) << "the count starts again";
        std::filesystem::remove(second);
        now = start;
    }
}

TEST_F(LogTest, LooksAtTheSizeAtOnceWhenALimitIsSet) {
    LogStart(base.c_str(), logInfo, 0);
    std::filesystem::resize_file(first, 3'000'000'000);
    LogSetMaxFileSize(2'147'484);  // in 32 bits 1000 times this is negative: no limit
    EXPECT_EQ(std::filesystem::file_size(first), 3'000'000'000U);
    ++now;
    std::filesystem::resize_file(first, 1000);
    LogSetMaxFileSize(1);
    EXPECT_EQ(std::filesystem::file_size(first), 1000U) << "not beyond the limit";
    std::filesystem::resize_file(first, logStart.size());
    WriteLines(31);
    logWrite("", 1, logInfo, "");
    EXPECT_EQ(std::filesystem::file_size(first), 1001U);
    LogSetMaxFileSize(1);
    EXPECT_THAT(ReadFile(first), EndsWith("31 b\n[:1] LOG END Sun Nov 15 01:11:50 2026"));
    std::filesystem::remove(second);
    CaptureStderr();
    LogSetMaxFileSize(2);
    EXPECT_EQ(GetCapturedStderr(), "failure getting file stats\n: No such file or directory\n");
}

TEST_F(LogTest, SwitchesToANewFileByAge) {
    LogStart(base.c_str(), logInfo, 0);
    LogSetRotationHours(2);
    now += 7199;
    LogWrite("S", 1, logInfo, "young");
    EXPECT_EQ(CountFiles(), 1U);
    ++now;
    LogWrite("S", 2, logInfo, "old");
    LogWrite("S", 3, logInfo, "young again");
    EXPECT_THAT(ReadFile(first), EndsWith("[S:2] old\nLOG END Sun Nov 15 03:11:49 2026"));
    EXPECT_EQ(ReadFile(FileAt("03-11-49")), "LOG START Sun Nov 15 03:11:49 2026\n[S:3] young again\n");
    now += 3600;
    LogSetRotationHours(1);
    EXPECT_TRUE(std::filesystem::exists(FileAt("04-11-49"))) << "a limit already passed counts at once";
}

TEST_F(LogTest, ReportsAFileThatCannotBeClosedAndLeavesErrnoAlone) {
    std::filesystem::create_symlink("/dev/full", first);
    LogStart(base.c_str(), logInfo, 0);
    errno = EDOM;
    LogWrite("S", 1, logInfo, "lost");
    EXPECT_EQ(errno, EDOM);
    CaptureStderr();
    EXPECT_NE(LogStop(), 0);
    EXPECT_EQ(GetCapturedStderr(), " Couldn't close log file \n: No space left on device\n");
}

TEST_F(LogTest, SurvivesAClockBeyondTheCalendar) {
    // A second beyond the greatest year of the calendar, and the last second within it.
    for (const std::time_t absurd : {std::time_t{1} << 62, std::time_t{67768036191656999}}) {
        now = absurd;
        EXPECT_EQ(LogStart(base.c_str(), logInfo, 1), 0);
        LogWrite("S", 1, logInfo, "text");
    }
    EXPECT_EQ(CountFiles(), 2U);
}

}  // namespace
