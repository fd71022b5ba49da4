#include "connection.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "frame.h"
#include "hsm_identity.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace qlapi {
namespace {

// The few socket calls that differ between Winsock and POSIX.
#ifdef _WIN32
constexpr int kNoSignal = 0;  // Winsock raises no SIGPIPE
using IoSize = int;
int CloseSocket(int fd) {
  return closesocket(static_cast<SOCKET>(fd));
}
int PollOne(pollfd *p, int timeout_ms) {
  return WSAPoll(p, 1, timeout_ms);
}
bool Interrupted() {
  return false;
}
bool InProgress() {
  return WSAGetLastError() == WSAEWOULDBLOCK;
}
void SetNonBlocking(int fd, bool on) {
  u_long mode = on ? 1 : 0;
  ioctlsocket(static_cast<SOCKET>(fd), FIONBIO, &mode);
}
void StartSockets() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  });
}
#else
constexpr int kNoSignal = MSG_NOSIGNAL;
using IoSize = ssize_t;
int CloseSocket(int fd) {
  return ::close(fd);
}
int PollOne(pollfd *p, int timeout_ms) {
  return ::poll(p, 1, timeout_ms);
}
bool Interrupted() {
  return errno == EINTR;
}
bool InProgress() {
  return errno == EINPROGRESS;
}
void SetNonBlocking(int fd, bool on) {
  const int fl = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, on ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK));
}
void StartSockets() {}
#endif

constexpr int kConnectTimeoutMs = 10000;
// Key generation of large RSA keys can take minutes; a dead peer is found by TCP itself.
constexpr int kIoTimeoutSeconds = 900;
constexpr std::size_t kReadChunk = 16384;

SSL_CTX *g_ctx = nullptr;
BIO_METHOD *g_bio_method = nullptr;
std::once_flag g_tls_once;
int g_tls_status = QL_OK;

// A socket BIO that never raises SIGPIPE: OpenSSL's own writes with write(2), which kills a
// process that has not ignored the signal when the HSM closes first. A library must not change
// the process's signal handling, so it sends with MSG_NOSIGNAL instead.
int BioWrite(BIO *bio, const char *data, int size) {
  const int fd = static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
  for (;;) {
    const IoSize n = ::send(fd, data, size, kNoSignal);
    if (n >= 0) return static_cast<int>(n);
    if (!Interrupted()) return -1;
  }
}

int BioRead(BIO *bio, char *data, int size) {
  const int fd = static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
  for (;;) {
    const IoSize n = ::recv(fd, data, size, 0);
    if (n >= 0) return static_cast<int>(n);
    if (!Interrupted()) return -1;
  }
}

long BioCtrl(BIO *, int cmd, long, void *) {
  return cmd == BIO_CTRL_FLUSH ? 1 : 0;
}

int BioCreate(BIO *bio) {
  BIO_set_init(bio, 1);
  return 1;
}

void CreateTlsContext() {
  g_bio_method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "qlapi socket");
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  if (g_bio_method == nullptr || ctx == nullptr) {
    SSL_CTX_free(ctx);
    g_tls_status = QL_ERR_TLS_FAILED;
    return;
  }
  BIO_meth_set_write(g_bio_method, BioWrite);
  BIO_meth_set_read(g_bio_method, BioRead);
  BIO_meth_set_ctrl(g_bio_method, BioCtrl);
  BIO_meth_set_create(g_bio_method, BioCreate);
  SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
  SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION);
  // The handshake proves the peer holds its certificate's key; whether that certificate is the
  // HSM's (a CA bundle, or the fingerprint pinned for the address) is checked right after it by
  // VerifyHsmIdentity, before any request leaves, so that a refusal gets its own code.
  SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
  SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
  g_ctx = ctx;
}

void SetTimeouts(int fd) {
#ifdef _WIN32
  DWORD ms = kIoTimeoutSeconds * 1000;
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&ms), sizeof ms);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char *>(&ms), sizeof ms);
#else
  timeval tv{};
  tv.tv_sec = kIoTimeoutSeconds;
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
#endif
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&one), sizeof one);
}

// Connects one address with a time limit; the socket is blocking again afterwards.
int ConnectOne(const addrinfo *ai) {
#ifdef _WIN32
  const int fd = static_cast<int>(::socket(ai->ai_family, ai->ai_socktype, ai->ai_protocol));
#else
  const int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
#endif
  if (fd < 0) return -1;
  SetNonBlocking(fd, true);
  int rc = ::connect(fd, ai->ai_addr, static_cast<int>(ai->ai_addrlen));
  if (rc != 0 && InProgress()) {
    pollfd p{};
    p.fd = fd;
    p.events = POLLOUT;
    do {
      rc = PollOne(&p, kConnectTimeoutMs);
    } while (rc < 0 && Interrupted());
    int err = 0;
    socklen_t len = sizeof err;
    const bool connected =
        rc == 1 &&
        getsockopt(fd, SOL_SOCKET, SO_ERROR, reinterpret_cast<char *>(&err), &len) == 0 && err == 0;
    rc = connected ? 0 : -1;
  }
  if (rc != 0) {
    CloseSocket(fd);
    return -1;
  }
  SetNonBlocking(fd, false);
  SetTimeouts(fd);
  return fd;
}

}  // namespace

Status InitTls() {
  std::call_once(g_tls_once, CreateTlsContext);
  return Status(g_tls_status);
}

Result<std::shared_ptr<const ClientIdentity>> ClientIdentity::FromPem(const std::string &pem) {
  std::shared_ptr<ClientIdentity> id(new ClientIdentity());
  // Each read starts at the top and skips PEM blocks of other kinds.
  BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (bio != nullptr) id->cert_ = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (bio != nullptr) id->key_ = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  ERR_clear_error();
  if (id->cert_ == nullptr) return Status(QL_ERR_BAD_CERT);
  if (id->key_ == nullptr) return Status(QL_ERR_BAD_ARGUMENT);
  if (X509_check_private_key(id->cert_, id->key_) != 1) {
    ERR_clear_error();
    return Status(QL_ERR_KEY_CERT_MISMATCH);
  }
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (X509_digest(id->cert_, EVP_sha256(), md, &len) != 1) return Status(QL_ERR_BAD_CERT);
  id->sha256_.assign(reinterpret_cast<char *>(md), len);
  return std::shared_ptr<const ClientIdentity>(std::move(id));
}

ClientIdentity::~ClientIdentity() {
  X509_free(cert_);
  EVP_PKEY_free(key_);
}

Result<std::unique_ptr<Connection>> Connection::Open(const std::string &host, int port, bool tls,
                                                     const ClientIdentity *identity) {
  if (tls) {
    Status st = InitTls();
    if (!st.ok()) return st;
  }
  StartSockets();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *list = nullptr;
  const std::string service = std::to_string(port);
  if (getaddrinfo(host.c_str(), service.c_str(), &hints, &list) != 0 || list == nullptr) {
    return Status(QL_ERR_CONNECTION_FAILED);
  }
  int fd = -1;
  for (const addrinfo *ai = list; ai != nullptr && fd < 0; ai = ai->ai_next) fd = ConnectOne(ai);
  freeaddrinfo(list);
  if (fd < 0) return Status(QL_ERR_CONNECTION_FAILED);

  std::unique_ptr<Connection> conn(new Connection(fd));
  if (!tls) return conn;

  conn->ssl_.reset(SSL_new(g_ctx));
  BIO *bio = conn->ssl_ ? BIO_new(g_bio_method) : nullptr;
  if (bio == nullptr) return Status(QL_ERR_TLS_FAILED);
  BIO_set_data(bio, reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
  SSL_set_bio(conn->ssl_.get(), bio, bio);
  // A record's header and body in one receive (and any records behind it).
  SSL_set_read_ahead(conn->ssl_.get(), 1);
  if (identity != nullptr && (SSL_use_certificate(conn->ssl_.get(), identity->cert()) != 1 ||
                              SSL_use_PrivateKey(conn->ssl_.get(), identity->key()) != 1)) {
    ERR_clear_error();
    return Status(QL_ERR_TLS_FAILED);
  }
  if (SSL_connect(conn->ssl_.get()) != 1) {
    ERR_clear_error();
    return Status(QL_ERR_TLS_FAILED);
  }
  if (X509 *cert = SSL_get0_peer_certificate(conn->ssl_.get())) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (X509_digest(cert, EVP_sha256(), md, &len) == 1) {
      conn->peer_sha256_.assign(reinterpret_cast<char *>(md), len);
    }
  }
  Status hsm = VerifyHsmIdentity(conn->ssl_.get(), host, port, conn->peer_sha256_);
  if (!hsm.ok()) return hsm;
  return conn;
}

Connection::~Connection() {
  if (ssl_ && !broken_) {
    // A close_notify lets the HSM tell a clean close from a lost connection; no wait for its.
    SSL_set_quiet_shutdown(ssl_.get(), 0);
    SSL_shutdown(ssl_.get());
  }
  ssl_.reset();
  if (fd_ >= 0) CloseSocket(fd_);
  ERR_clear_error();
}

Status Connection::Write(const std::string &bytes) {
  if (broken_) return Status(QL_ERR_SESSION_CLOSED);
  std::size_t done = 0;
  while (done < bytes.size()) {
    const std::size_t left = bytes.size() - done;
    if (ssl_) {
      std::size_t n = 0;
      if (SSL_write_ex(ssl_.get(), bytes.data() + done, left, &n) != 1) {
        ERR_clear_error();
        broken_ = true;
        return Status(QL_ERR_SESSION_CLOSED);
      }
      done += n;
    } else {
      const IoSize n = ::send(fd_, bytes.data() + done, static_cast<int>(left), kNoSignal);
      if (n < 0 && Interrupted()) continue;
      if (n <= 0) {
        broken_ = true;
        return Status(QL_ERR_SESSION_CLOSED);
      }
      done += static_cast<std::size_t>(n);
    }
  }
  return Status::Ok();
}

Status Connection::Fill() {
  if (in_pos_ == in_.size()) {
    in_.clear();
    in_pos_ = 0;
  }
  const std::size_t at = in_.size();
  in_.resize(at + kReadChunk);
  std::size_t got = 0;
  if (ssl_) {
    if (SSL_read_ex(ssl_.get(), in_.data() + at, kReadChunk, &got) != 1) got = 0;
    ERR_clear_error();
  } else {
    IoSize n;
    do {
      n = ::recv(fd_, in_.data() + at, static_cast<int>(kReadChunk), 0);
    } while (n < 0 && Interrupted());
    got = n > 0 ? static_cast<std::size_t>(n) : 0;
  }
  in_.resize(at + got);
  if (got == 0) {
    broken_ = true;
    return Status(QL_ERR_SESSION_CLOSED);
  }
  return Status::Ok();
}

Status Connection::ReadExact(void *out, std::size_t size) {
  auto *p = static_cast<char *>(out);
  while (size > 0) {
    if (in_pos_ == in_.size()) {
      Status st = Fill();
      if (!st.ok()) return st;
    }
    const std::size_t take = std::min(size, in_.size() - in_pos_);
    std::memcpy(p, in_.data() + in_pos_, take);
    in_pos_ += take;
    p += take;
    size -= take;
  }
  return Status::Ok();
}

bool Connection::WaitReadable(int timeout_ms) {
  if (broken_) return true;  // the next read says so at once
  if (in_pos_ < in_.size()) return true;
  // Records OpenSSL read ahead but has not opened yet count too.
  if (ssl_ && SSL_has_pending(ssl_.get()) == 1) return true;
#ifdef _WIN32
  WSAPOLLFD p{static_cast<SOCKET>(fd_), POLLRDNORM, 0};
  return WSAPoll(&p, 1, timeout_ms) != 0;
#else
  pollfd p{fd_, POLLIN, 0};
  const int n = ::poll(&p, 1, timeout_ms);
  return n != 0 && !(n < 0 && errno == EINTR);
#endif
}

Status Connection::ReadFrame(uint32_t max_frame, std::string *body) {
  if (broken_) return Status(QL_ERR_SESSION_CLOSED);
  unsigned char header[qlproto::kFrameHeaderSize];
  Status st = ReadExact(header, sizeof header);
  if (!st.ok()) return st;
  uint32_t length = 0;
  if (qlproto::DecodeFrameHeader(header, max_frame, &length) != qlproto::FrameStatus::kOk) {
    broken_ = true;
    return Status(QL_ERR_PROTOCOL);
  }
  body->resize(length);
  return ReadExact(body->data(), length);
}

}  // namespace qlapi
