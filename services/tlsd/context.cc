#include "services/tlsd/context.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <string_view>
#include <sys/socket.h>

#include "platform/unique_fd.h"

namespace tlsd {
namespace {

// The cheaper one first: no one breaks AES with 128 bits either.
constexpr char ciphers[] = "ECDHE+AES128+AESGCM:ECDHE+AESGCM:ECDHE+CHACHA20";
constexpr char suites[] = "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char groups[] = "X25519:P-256:P-384";
// As it travels: a length and a name.
constexpr std::string_view onlyProtocol = "\x08http/1.1";
constexpr std::string_view sessionContext = "tlsd";
// Enough for a browser, which opens several connections at once but resumes from any of them.
constexpr std::size_t ticketsPerHandshake = 1;
constexpr std::size_t ticketKeyBytes = 80;

int chooseProtocol(SSL* /*connection*/, const unsigned char** chosen, unsigned char* chosenLength,
                   const unsigned char* offered, unsigned offeredLength, void* /*context*/) {
  unsigned char* selected = nullptr;
  const auto* ours = reinterpret_cast<const unsigned char*>(onlyProtocol.data());
  const int outcome = SSL_select_next_proto(&selected, chosenLength, ours, static_cast<unsigned>(onlyProtocol.size()),
                                            offered, offeredLength);
  *chosen = selected;
  return outcome == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

void setRules(SSL_CTX& context, bool offload) {
  // CIPHER_SERVER_PREFERENCE with PRIORITIZE_CHACHA: AES, but for a client without AES instructions.
  SSL_CTX_set_options(&context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                    SSL_OP_PRIORITIZE_CHACHA);
  if (offload) SSL_CTX_set_options(&context, SSL_OP_ENABLE_KTLS);
  SSL_CTX_set_mode(&context,
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
  // One read takes what there is instead of five bytes first. The kernel's TLS needs to find the rest unread.
  SSL_CTX_set_read_ahead(&context, offload ? 0 : 1);
  // Tickets hold all that is needed to resume; nothing is kept here.
  SSL_CTX_set_session_cache_mode(&context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(&context, ticketsPerHandshake);
  SSL_CTX_set_session_id_context(&context, reinterpret_cast<const unsigned char*>(sessionContext.data()),
                                 static_cast<unsigned>(sessionContext.size()));
  SSL_CTX_set_alpn_select_cb(&context, chooseProtocol, nullptr);
}

bool setIdentity(SSL_CTX& context, const Identity& identity) {
  if (SSL_CTX_use_certificate(&context, identity.certificate()) != 1) return false;
  for (std::size_t i = 1; i < identity.chain().size(); ++i) {
    if (SSL_CTX_add1_chain_cert(&context, identity.chain()[i].get()) != 1) return false;
  }
  return SSL_CTX_use_PrivateKey(&context, identity.key()) == 1 && SSL_CTX_check_private_key(&context) == 1;
}

}  // namespace

std::expected<Owned<SSL_CTX>, std::string> makeContext(const Identity& identity, bool offload) {
  ERR_clear_error();
  Owned<SSL_CTX> context(SSL_CTX_new(TLS_server_method()));
  const bool made = context && SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) == 1 &&
                    SSL_CTX_set_cipher_list(context.get(), ciphers) == 1 &&
                    SSL_CTX_set_ciphersuites(context.get(), suites) == 1 &&
                    SSL_CTX_set1_groups_list(context.get(), groups) == 1 && setIdentity(*context, identity);
  if (!made) return std::unexpected("the certificate cannot be used: " + takeOpensslError());
  setRules(*context, offload);
  return context;
}

void renewTicketKeys(SSL_CTX& context) {
  std::array<std::uint8_t, ticketKeyBytes> keys{};
  if (RAND_bytes(keys.data(), static_cast<int>(keys.size())) == 1) {
    SSL_CTX_set_tlsext_ticket_keys(&context, keys.data(), static_cast<long>(keys.size()));
  }
  OPENSSL_cleanse(keys.data(), keys.size());
}

// Asking for it loads the module where there is one. A socket that is not connected is refused for that alone.
bool kernelOffersTls() {
  const UniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  constexpr std::string_view name = "tls";
  return probe && setsockopt(probe.get(), SOL_TCP, TCP_ULP, name.data(), name.size()) != 0 && errno == ENOTCONN;
}

}  // namespace tlsd
