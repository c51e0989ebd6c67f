#include "services/tlsd/failure.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <set>

namespace tlsd {
namespace {

unsigned long sslError(int reason) {
  return ERR_PACK(ERR_LIB_SSL, 0, reason);
}

TEST(Failure, EachHasANameOfItsOwn) {
  std::set<std::string_view> names;
  for (const Failure failure : allFailures)
    names.insert(failureName(failure));
  EXPECT_EQ(names.size(), allFailures.size());
  EXPECT_FALSE(names.contains(""));
}

TEST(Failure, StandsInTheListAtItsOwnPlace) {
  for (std::size_t i = 0; i < allFailures.size(); ++i)
    EXPECT_EQ(static_cast<std::size_t>(allFailures[i]), i);
}

struct Case {
  unsigned long error;
  int systemError;
  Failure kind;
  std::string_view text;
};

TEST(Failure, TellsWhyAHandshakeFailed) {
  const Case cases[] = {
      {0, 0, Failure::left, "the peer left in the handshake"},
      {0, ECONNRESET, Failure::left, "the peer left in the handshake"},
      {0, EPIPE, Failure::left, "the peer left in the handshake"},
      {0, ENOTSOCK, Failure::system, "the socket failed: Socket operation on non-socket"},
      {sslError(SSL_R_UNEXPECTED_EOF_WHILE_READING), 0, Failure::left, "the peer left in the handshake"},
      {sslError(SSL_R_HTTP_REQUEST), 0, Failure::notTls, "the peer does not speak TLS"},
      {sslError(SSL_R_WRONG_VERSION_NUMBER), 0, Failure::notTls, "the peer does not speak TLS"},
      {sslError(SSL_R_UNSUPPORTED_PROTOCOL), 0, Failure::nothingInCommon, "bad handshake: unsupported protocol"},
      {sslError(SSL_R_NO_SHARED_CIPHER), 0, Failure::nothingInCommon, "bad handshake: no shared cipher"},
      {sslError(SSL_R_NO_APPLICATION_PROTOCOL), 0, Failure::nothingInCommon, "bad handshake: no application protocol"},
      {sslError(SSL_R_TLSV1_ALERT_UNKNOWN_CA), 0, Failure::refused, "the peer refused: tlsv1 alert unknown ca"},
      {sslError(SSL_R_DIGEST_CHECK_FAILED), 0, Failure::violated, "bad handshake: digest check failed"},
  };
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
  for (const Case& one : cases) {
    const Diagnosis diagnosis = diagnoseHandshake(one.error, one.systemError);
    EXPECT_EQ(diagnosis.kind, one.kind) << one.text;
    EXPECT_EQ(diagnosis.text, one.text);
  }
  EXPECT_EQ(diagnoseHandshake(ERR_PACK(ERR_LIB_EVP, 0, 1), 0).kind, Failure::violated);
}

TEST(Failure, TellsATruncatedEndFromACutAndFromGarbage) {
  EXPECT_EQ(diagnoseTransfer(0, 0), Failure::truncated);
  EXPECT_EQ(diagnoseTransfer(sslError(SSL_R_UNEXPECTED_EOF_WHILE_READING), 0), Failure::truncated);
  EXPECT_EQ(diagnoseTransfer(0, ECONNRESET), Failure::reset);
  EXPECT_EQ(diagnoseTransfer(sslError(SSL_R_SSLV3_ALERT_BAD_RECORD_MAC), 0), Failure::reset);
  EXPECT_EQ(diagnoseTransfer(sslError(SSL_R_DECRYPTION_FAILED_OR_BAD_RECORD_MAC), 0), Failure::broken);
  EXPECT_EQ(diagnoseTransfer(sslError(SSL_R_WRONG_VERSION_NUMBER), 0), Failure::broken);
}

}  // namespace
}  // namespace tlsd
