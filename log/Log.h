#pragma once

#include <cstdint>

/// The process's one log: printf-style lines with numbered levels, into a file named after the time of
/// opening, or onto standard output. There is no lock: one thread logs. Nothing here throws.
///
/// A line reads "01:11:49.123 [TunnelClient:50] Tunnel reconnecting...": an optional time stamp, the source
/// and the number of the call, the message. Source and number are an interface: tools search for them.
///
/// The agent only starts the log and writes lines; changing the level, limiting and rotating files, and
/// stopping belong to the logger's promise to other programs that use it.
namespace nox::tunnel_client {

/// A line is written when its level is at or below the threshold; threshold 0 writes nothing.
enum LogLevel : std::int32_t {
    logOff = 0,
    logError = 1,
    logWarning = 2,
    logInfo = 3,
    logDebug = 4,
    logVerbose = 5
};

/// Starts logging into "<basePath>-<date and time>.log", or onto standard output when `basePath` is null or
/// empty. The file is opened only when `level` turns logging on. A file that cannot be created is reported on
/// standard error, and standard output takes its place.
/// @param basePath not copied: must outlive the logger
/// @param timestamps nonzero: lines begin with the local time of day
/// @return 0, or 1 when the file could not be created or the level is not one of 0 to 5
int LogStart(const char* basePath, std::int32_t level, std::uint32_t timestamps);

/// Changes the threshold; opens the output when logging was off, stops it when `level` is 0.
/// @return 1 for a level outside 0 to 5 (nothing changes), else the result of opening or stopping
int LogSetLevel(std::int32_t level);
int LogSetLevelByName(const char* name);

/// "error", "warning", "info", "debug" or "verbose", exactly so written; any other name is 0, off.
std::int32_t LogLevelFromName(const char* name);

/// A log file that has grown beyond 1000 * `kilobytes` bytes is followed by a new one; looked at now and then
/// every 100 lines. The product is taken in 32 bits: 0, or one that turns negative, switches the limit off.
void LogSetMaxFileSize(std::uint32_t kilobytes);

/// A log file that has been open for `hours` is followed by a new one; 0 or less switches this off. The new
/// file is named by the second: switching within the second of its predecessor's opening overwrites that one.
void LogSetRotationHours(std::int32_t hours);

/// Ends the log with "LOG END" and no line end; the next "LOG START" on standard output continues that line.
/// @return the result of closing the file, 0 on success
int LogStop();

/// Writes and flushes one line; a line feed is added when `format` is not empty and lacks one.
/// @param file name of the caller's source file, without extension
/// @param line the number assigned to this call, or its source line
void LogWrite(const char* file, int line, std::int32_t level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace nox::tunnel_client
