#pragma once

#include <string>

#include "json/json.h"

/// Signatures of control messages: an MD5 digest over the shared secret, the message's members and the secret
/// again (docs/protocol.md). The functions keep no state; the nonce draws on the C library's rand().
namespace nox::tunnel_client {

/// The MD5 digest (RFC 1321) of the text's bytes as 32 upper-case hexadecimal digits.
std::string Md5HexUpper(const std::string& text);

/// Sets "timestamp" (milliseconds since 1970 UTC, as text) and then "noncestr" (16 letters and digits).
void AddTimestampAndNonce(json::jobject& message);

/// The signature of a message as it stands, its "sign" member left out; sender and receiver compute the same.
/// @throws json::invalid_key when there is no "timestamp"; whatever reading a member throws
std::string ComputeSign(const std::string& secret, const json::jobject& message);

/// Makes a message ready to send: time stamp, nonce, then "sign". Earlier values of the three are replaced.
void SignMessage(const std::string& secret, json::jobject& message);

}  // namespace nox::tunnel_client
