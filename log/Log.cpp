#include "log/Log.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

namespace nox::tunnel_client {

namespace {

constexpr std::uint32_t linesBetweenSizeChecks = 100;
constexpr std::int64_t secondsPerHour = 3600;

struct Logger {
    std::int32_t threshold = logVerbose;
    std::FILE* stream = nullptr;
    const char* basePath = nullptr;  // owned by the caller
    std::string fileName;            // of the open log file
    std::uint32_t timestamps = 0;
    std::int64_t maxFileSize = 0;    // bytes; below 1: no limit
    std::int32_t rotationHours = 0;  // 0 or less: no limit
    std::int64_t openedAt = 0;       // seconds, as time() counts them
    std::int64_t nextRotation = 0;
    std::uint32_t linesSinceSizeCheck = 0;
};
Logger logger;

// A clock that is set to a year beyond the calendar must not end the process: the date is left empty.
std::tm LocalTime() {
    const std::time_t now = std::time(nullptr);
    const std::tm* local = std::localtime(&now);
    return local != nullptr ? *local : std::tm{};
}

// Writes "LOG START" or "LOG END" with the date, without the line feed that asctime appends.
void WriteDated(const char* event) {
    const std::tm now = LocalTime();
    const char* text = std::asctime(&now);
    const std::size_t length = text != nullptr ? std::strlen(text) - 1 : 0;
    std::fprintf(logger.stream, "%s %.*s", event, static_cast<int>(length), text != nullptr ? text : "");
}

// Returns false when there was no memory for it.
bool NameFile() try {
    const std::tm now = LocalTime();
    std::array<char, 100> date{};
    std::snprintf(date.data(), date.size(), "-%lld-%02d-%02d-%02d-%02d-%02d.log", 1900LL + now.tm_year,
                  now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
    logger.fileName = std::string(logger.basePath) + date.data();
    return true;
} catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
}

bool WritesToFile() { return logger.stream != nullptr && logger.stream != stdout; }

void ScheduleRotation() { logger.nextRotation = logger.openedAt + secondsPerHour * logger.rotationHours; }

// Leaves standard output in the file's place when the file cannot be created. Returns 0, or 1 in that case.
int OpenFile() {
    logger.stream = NameFile() ? std::fopen(logger.fileName.c_str(), "w") : nullptr;
    if (logger.stream != nullptr) return 0;
    const int reason = errno;
    std::fprintf(stderr, "Attempted to create log %s\n", logger.fileName.c_str());
    errno = reason;
    std::perror(" Cannot open log file, using stdout instead ");
    logger.stream = stdout;
    return 1;
}

int OpenOutput() {
    if (logger.stream != nullptr) LogStop();
    int result = 0;
    if (logger.basePath == nullptr || *logger.basePath == '\0') {
        logger.stream = stdout;
    } else {
        result = OpenFile();
    }
    logger.openedAt = std::time(nullptr);
    ScheduleRotation();
    WriteDated("LOG START");
    std::fputc('\n', logger.stream);
    std::fflush(logger.stream);
    logger.linesSinceSizeCheck = 0;
    return result;
}

void CheckSize() {
    if (logger.maxFileSize < 1 || !WritesToFile()) return;
    struct stat file {};
    if (lstat(logger.fileName.c_str(), &file) != 0) {
        std::perror("failure getting file stats\n");
    } else if (file.st_size > logger.maxFileSize) {
        OpenOutput();
    }
}

void CheckAge() {
    if (logger.rotationHours < 1 || !WritesToFile()) return;
    if (std::time(nullptr) >= logger.nextRotation) OpenOutput();
}

// The clock is read twice: when a second begins in between, the milliseconds belong to the new second.
void WriteTimeOfDay(std::FILE* out) {
    const std::tm now = LocalTime();
    std::timespec precise{};
    clock_gettime(CLOCK_REALTIME, &precise);
    std::fprintf(out, "%02d:%02d:%02d.%03ld ", now.tm_hour, now.tm_min, now.tm_sec,
                 static_cast<long>(precise.tv_nsec / 1000000));
}

bool LacksLineFeed(const char* format) {
    const std::size_t length = std::strlen(format);
    return length > 0 && format[length - 1] != '\n';
}

void CheckLimits() {
    if (++logger.linesSinceSizeCheck >= linesBetweenSizeChecks) {
        CheckSize();
        logger.linesSinceSizeCheck = 0;
    }
    CheckAge();
}

}  // namespace

int LogStart(const char* basePath, std::int32_t level, std::uint32_t timestamps) {
    logger.basePath = basePath;
    logger.timestamps = timestamps;
    logger.fileName.clear();
    logger.threshold = logOff;
    return LogSetLevel(level);
}

int LogSetLevel(std::int32_t level) {
    if (level < logOff || level > logVerbose) return 1;
    if (level == logger.threshold) return 0;
    const bool wasOff = logger.threshold == logOff;
    logger.threshold = level;
    if (wasOff) return OpenOutput();
    return level == logOff ? LogStop() : 0;
}

int LogSetLevelByName(const char* name) { return LogSetLevel(LogLevelFromName(name)); }

std::int32_t LogLevelFromName(const char* name) {
    constexpr std::array<const char*, 5> names{"error", "warning", "info", "debug", "verbose"};
    std::int32_t level = logOff;
    for (const char* known : names) {
        ++level;
        if (std::strcmp(name, known) == 0) return level;
    }
    return logOff;
}

void LogSetMaxFileSize(std::uint32_t kilobytes) {
    // Sign-extended from 32 bits: an absurd limit wraps, and if it turns negative there is no limit.
    logger.maxFileSize = static_cast<std::int32_t>(1000U * kilobytes);
    CheckSize();
}

void LogSetRotationHours(std::int32_t hours) {
    logger.rotationHours = hours;
    ScheduleRotation();
    CheckAge();
}

int LogStop() {
    int result = 0;
    if (logger.stream != nullptr) {
        // No line end: on standard output the next "LOG START" continues this line.
        WriteDated("LOG END");
        if (logger.stream == stdout) {
            std::fflush(stdout);
        } else {
            result = std::fclose(logger.stream);
            if (result != 0) std::perror(" Couldn't close log file \n");
        }
        logger.stream = nullptr;
    }
    logger.fileName.clear();
    return result;
}

void LogWrite(const char* file, int line, std::int32_t level, const char* format, ...) {
    if (level > logger.threshold || format == nullptr) return;
    const int callersErrno = errno;  // a caller may log before it reads errno
    std::FILE* out = logger.stream != nullptr ? logger.stream : stdout;
    if (logger.timestamps != 0) WriteTimeOfDay(out);
    std::fprintf(out, "[%s:%d] ", file, line);
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(out, format, arguments);
    va_end(arguments);
    if (LacksLineFeed(format)) std::fputc('\n', out);
    std::fflush(out);
    CheckLimits();
    errno = callersErrno;
}

}  // namespace nox::tunnel_client
