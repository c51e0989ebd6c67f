#include "services/tlsd/failure.h"

#include <cerrno>
#include <cstring>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace tlsd {
namespace {

bool isGone(int systemError) {
  return systemError == 0 || systemError == ECONNRESET || systemError == EPIPE || systemError == ETIMEDOUT;
}

std::string reasonText(unsigned long error) {
  const char* reason = ERR_reason_error_string(error);
  return reason != nullptr ? reason : "unknown error";
}

Failure kindOf(int reason) {
  // Alerts of the peer are reasons from here on.
  if (reason >= SSL_AD_REASON_OFFSET) return Failure::refused;
  switch (reason) {
    case SSL_R_HTTP_REQUEST:
    case SSL_R_HTTPS_PROXY_REQUEST:
    case SSL_R_WRONG_VERSION_NUMBER:
      return Failure::notTls;
    case SSL_R_UNEXPECTED_EOF_WHILE_READING:
      return Failure::left;
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_VERSION_TOO_LOW:
    case SSL_R_UNKNOWN_PROTOCOL:
    case SSL_R_NO_SHARED_CIPHER:
    case SSL_R_NO_SHARED_GROUPS:
    case SSL_R_NO_SUITABLE_KEY_SHARE:
    case SSL_R_NO_SUITABLE_SIGNATURE_ALGORITHM:
    case SSL_R_NO_APPLICATION_PROTOCOL:
      return Failure::nothingInCommon;
    default:
      return Failure::violated;
  }
}

}  // namespace

std::string_view failureName(Failure failure) {
  switch (failure) {
    case Failure::notTls:
      return "not TLS";
    case Failure::timedOut:
      return "handshake timeout";
    case Failure::left:
      return "left in the handshake";
    case Failure::nothingInCommon:
      return "nothing in common";
    case Failure::refused:
      return "refused by the peer";
    case Failure::violated:
      return "bad handshake";
    case Failure::overload:
      return "too many connections";
    case Failure::system:
      return "system";
    case Failure::abandoned:
      return "abandoned";
    case Failure::truncated:
      return "truncated";
    case Failure::broken:
      return "bad record";
    case Failure::reset:
      return "reset";
    case Failure::stalled:
      return "stalled";
  }
  return "";
}

Diagnosis diagnoseHandshake(unsigned long opensslError, int systemError) {
  if (opensslError == 0) {
    if (isGone(systemError)) return {Failure::left, "the peer left in the handshake"};
    return {Failure::system, std::string("the socket failed: ") + std::strerror(systemError)};
  }
  if (ERR_GET_LIB(opensslError) != ERR_LIB_SSL)
    return {Failure::violated, "bad handshake: " + reasonText(opensslError)};
  const Failure kind = kindOf(ERR_GET_REASON(opensslError));
  switch (kind) {
    case Failure::notTls:
      return {kind, "the peer does not speak TLS"};
    case Failure::left:
      return {kind, "the peer left in the handshake"};
    case Failure::refused:
      return {kind, "the peer refused: " + reasonText(opensslError)};
    default:
      return {kind, "bad handshake: " + reasonText(opensslError)};
  }
}

Failure diagnoseTransfer(unsigned long opensslError, int systemError) {
  if (opensslError == 0) return systemError == 0 ? Failure::truncated : Failure::reset;
  const bool ofTls = ERR_GET_LIB(opensslError) == ERR_LIB_SSL;
  const int reason = ERR_GET_REASON(opensslError);
  if (ofTls && reason == SSL_R_UNEXPECTED_EOF_WHILE_READING) return Failure::truncated;
  // An alert that ends a connection is the peer's way of cutting it.
  if (ofTls && reason >= SSL_AD_REASON_OFFSET) return Failure::reset;
  return Failure::broken;
}

}  // namespace tlsd
