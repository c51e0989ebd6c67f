#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace tlsd {

// Why a connection failed, as it is counted.
enum class Failure : std::uint8_t {
  // In the handshake:
  notTls,           // the peer sent something else than TLS
  timedOut,         // it took too long
  left,             // the peer closed the connection
  nothingInCommon,  // no version, cipher, group or protocol
  refused,          // the peer did not want this certificate, or said otherwise that it will not
  violated,         // the peer broke the rules of TLS
  overload,         // too many connections at once
  system,           // no descriptor or memory left, or what was handed over is no connection
  abandoned,        // the program that handed the socket over cannot be answered any more
  // Afterwards:
  truncated,  // the peer's end came without the word that TLS has for it
  broken,     // the peer broke the rules of TLS
  reset,      // the connection was cut
  stalled,    // nothing moved for too long
};

inline constexpr std::array allFailures{
    Failure::notTls,   Failure::timedOut, Failure::left,   Failure::nothingInCommon, Failure::refused,
    Failure::violated, Failure::overload, Failure::system, Failure::abandoned,       Failure::truncated,
    Failure::broken,   Failure::reset,    Failure::stalled};

// A word for each, for those who read the counts.
[[nodiscard]] std::string_view failureName(Failure failure);

struct Diagnosis {
  Failure kind;
  std::string text;  // for the program that handed the socket over
};

// What a failed step of a handshake means, by the error that OpenSSL left (0: none, `systemError` says it). A reset or
// an end without error is the peer's leaving.
[[nodiscard]] Diagnosis diagnoseHandshake(unsigned long opensslError, int systemError);

// The same for a connection whose handshake is done.
[[nodiscard]] Failure diagnoseTransfer(unsigned long opensslError, int systemError);

}  // namespace tlsd
