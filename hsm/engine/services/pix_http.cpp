#include "engine/services/pix_http.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

namespace qlhsm::pix {

namespace {

// The longest header section, chunk line or trailer line read.
constexpr size_t kMaxLine = 64 * 1024;

Status BadArgument(const char *why) {
  return Status::Error(Code::kBadArgument, why);
}
Status Malformed(const char *why) {
  return Status::Error(Code::kRemoteFailed, std::string("malformed answer: ") + why);
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char &c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool IsTchar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) ||
         std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

// A port of 1 to 65535, all digits.
bool ParsePort(std::string_view text, uint16_t *port) {
  if (text.empty() || text.size() > 5) return false;
  uint32_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint32_t>(c - '0');
  }
  if (v == 0 || v > 65535) return false;
  *port = static_cast<uint16_t>(v);
  return true;
}

// "host[:port]" of a URL's authority or an endpoint; the port is required for an endpoint.
bool ParseHostPort(std::string_view text, bool port_required, std::string *host, uint16_t *port) {
  std::string_view port_text;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string_view::npos) return false;
    const std::string literal(text.substr(1, close - 1));
    in6_addr a6;
    if (inet_pton(AF_INET6, literal.c_str(), &a6) != 1) return false;
    *host = Lower(text.substr(0, close + 1));
    std::string_view rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') return false;
      port_text = rest.substr(1);
      if (port_text.empty()) return false;
    }
  } else {
    const size_t colon = text.rfind(':');
    std::string_view name = text.substr(0, colon);
    if (colon != std::string_view::npos) {
      port_text = text.substr(colon + 1);
      if (port_text.empty()) return false;
    }
    if (name.empty()) return false;
    for (char c : name) {
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.') return false;
    }
    *host = Lower(name);
  }
  if (port_text.empty()) return !port_required;
  return ParsePort(port_text, port);
}

}  // namespace

std::string Url::bare_host() const {
  if (!host.empty() && host.front() == '[') return host.substr(1, host.size() - 2);
  return host;
}

bool Url::host_is_ip() const {
  const std::string bare = bare_host();
  in_addr a4;
  in6_addr a6;
  return inet_pton(AF_INET, bare.c_str(), &a4) == 1 || inet_pton(AF_INET6, bare.c_str(), &a6) == 1;
}

Result<Url> ParseUrl(std::string_view url) {
  constexpr std::string_view kScheme = "https://";
  if (url.size() < kScheme.size() || Lower(url.substr(0, kScheme.size())) != kScheme)
    return BadArgument("only https URLs are allowed");
  for (char c : url) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f)
      return BadArgument("a space or control character in the URL");
  }
  std::string_view rest = url.substr(kScheme.size());
  if (rest.find('#') != std::string_view::npos) return BadArgument("a fragment in the URL");
  const size_t end = rest.find_first_of("/?");
  const std::string_view authority = rest.substr(0, end);
  if (authority.find('@') != std::string_view::npos) return BadArgument("user information");
  Url out;
  if (!ParseHostPort(authority, false, &out.host, &out.port))
    return BadArgument("the URL's host or port does not parse");
  out.target = end == std::string_view::npos ? "/" : std::string(rest.substr(end));
  if (out.target.front() == '?') out.target.insert(0, "/");
  return out;
}

Result<std::string> ParseEndpoint(std::string_view text) {
  std::string host;
  uint16_t port = 0;
  if (!ParseHostPort(text, true, &host, &port)) return BadArgument("not HOST:PORT");
  return host + ":" + std::to_string(port);
}

Result<std::string> NormaliseHeaders(std::string_view headers) {
  std::string out;
  // One line break at the very end is a terminator, not an empty line.
  if (!headers.empty() && headers.back() == '\n') headers.remove_suffix(1);
  if (!headers.empty() && headers.back() == '\r') headers.remove_suffix(1);
  if (headers.empty()) return out;
  size_t start = 0;
  while (start <= headers.size()) {
    size_t nl = headers.find('\n', start);
    if (nl == std::string_view::npos) nl = headers.size();
    std::string_view line = headers.substr(start, nl - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    start = nl + 1;
    if (line.empty()) return BadArgument("an empty header line");
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return BadArgument("a header without name");
    const std::string_view name = line.substr(0, colon);
    if (!std::all_of(name.begin(), name.end(), IsTchar))
      return BadArgument("a header name that is not a token");
    std::string_view value = line.substr(colon + 1);
    for (char c : value) {
      const auto u = static_cast<unsigned char>(c);
      if ((u < 0x20 && c != '\t') || u == 0x7f)
        return BadArgument("a control character in a header value");
    }
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
      value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    const std::string lower = Lower(name);
    if (lower == "host" || lower == "content-length" || lower == "transfer-encoding" ||
        lower == "connection")
      return BadArgument("a header the HSM writes itself");
    out.append(name).append(": ").append(value).append("\r\n");
  }
  return out;
}

bool AnswerReader::NextLine(std::string_view *line) {
  const size_t nl = pending_.find('\n', used_);
  if (nl == std::string::npos) return false;
  std::string_view l(pending_.data() + used_, nl - used_);
  if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
  *line = l;
  used_ = nl + 1;
  return true;
}

Status AnswerReader::Append(std::string_view data) {
  if (body_.size() + data.size() > max_body_)
    return Status::Error(Code::kLimitReached, "the answer is larger than the HSM reads");
  body_.append(data);
  return Status::Ok();
}

Status AnswerReader::Head(std::string_view head) {
  // The status line: HTTP/1.x SP 3DIGIT [SP reason]
  const size_t eol = head.find('\n');
  std::string_view status_line = head.substr(0, eol);
  if (!status_line.empty() && status_line.back() == '\r') status_line.remove_suffix(1);
  if (status_line.size() < 12 || status_line.substr(0, 7) != "HTTP/1." || status_line[8] != ' ' ||
      !std::isdigit(static_cast<unsigned char>(status_line[9])) ||
      !std::isdigit(static_cast<unsigned char>(status_line[10])) ||
      !std::isdigit(static_cast<unsigned char>(status_line[11])) ||
      (status_line.size() > 12 && status_line[12] != ' '))
    return Malformed("status line");
  status_ = static_cast<uint32_t>((status_line[9] - '0') * 100 + (status_line[10] - '0') * 10 +
                                  (status_line[11] - '0'));
  bool chunked = false, has_length = false;
  uint64_t length = 0;
  size_t start = eol == std::string_view::npos ? head.size() : eol + 1;
  while (start < head.size()) {
    size_t nl = head.find('\n', start);
    if (nl == std::string_view::npos) nl = head.size();
    std::string_view line = head.substr(start, nl - start);
    start = nl + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) continue;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return Malformed("header line");
    const std::string name = Lower(line.substr(0, colon));
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
      value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    if (name == "transfer-encoding") {
      // Chunked must be the last coding; any other coding reads to the close.
      const std::string v = Lower(value);
      chunked = v.size() >= 7 && v.compare(v.size() - 7, 7, "chunked") == 0;
    } else if (name == "content-length") {
      if (value.empty() || value.size() > 18 ||
          !std::all_of(value.begin(), value.end(),
                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }))
        return Malformed("Content-Length");
      const uint64_t v = std::stoull(std::string(value));
      if (has_length && v != length) return Malformed("two Content-Length values");
      has_length = true;
      length = v;
    }
  }
  if (status_ >= 100 && status_ < 200) {
    if (status_ == 101) return Malformed("a protocol switch");
    phase_ = Phase::kHead;  // an interim answer: the real one follows
    return Status::Ok();
  }
  if (status_ == 204 || status_ == 304) {
    phase_ = Phase::kDone;
  } else if (chunked) {
    phase_ = Phase::kChunkSize;
  } else if (has_length) {
    if (length > max_body_)
      return Status::Error(Code::kLimitReached, "the answer is larger than the HSM reads");
    left_ = length;
    phase_ = length == 0 ? Phase::kDone : Phase::kFixed;
  } else {
    phase_ = Phase::kToClose;
  }
  return Status::Ok();
}

Status AnswerReader::Step(bool *progress) {
  *progress = false;
  std::string_view line;
  switch (phase_) {
    case Phase::kHead: {
      // Lines up to the first empty one.
      size_t at = used_;
      for (;;) {
        const size_t nl = pending_.find('\n', at);
        if (nl == std::string::npos) {
          if (pending_.size() - used_ > kMaxLine) return Malformed("header section too long");
          return Status::Ok();
        }
        const bool empty = nl == at || (nl == at + 1 && pending_[at] == '\r');
        if (empty && at > used_) {
          const std::string_view head(pending_.data() + used_, at - used_);
          used_ = nl + 1;
          *progress = true;
          return Head(head);
        }
        if (empty) return Malformed("no status line");
        at = nl + 1;
      }
    }
    case Phase::kFixed:
    case Phase::kChunkData: {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(left_, pending_.size() - used_));
      if (n == 0) return Status::Ok();
      QL_RETURN_IF_ERROR(Append(std::string_view(pending_.data() + used_, n)));
      used_ += n;
      left_ -= n;
      *progress = true;
      if (left_ == 0) phase_ = phase_ == Phase::kFixed ? Phase::kDone : Phase::kChunkEnd;
      return Status::Ok();
    }
    case Phase::kChunkSize: {
      if (!NextLine(&line)) {
        if (pending_.size() - used_ > kMaxLine) return Malformed("chunk size line too long");
        return Status::Ok();
      }
      *progress = true;
      const std::string_view size = line.substr(0, line.find(';'));
      std::string_view digits = size;
      while (!digits.empty() && (digits.back() == ' ' || digits.back() == '\t'))
        digits.remove_suffix(1);
      if (digits.empty() || digits.size() > 15) return Malformed("chunk size");
      uint64_t v = 0;
      for (char c : digits) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) return Malformed("chunk size");
        v = v * 16 +
            static_cast<uint64_t>(std::isdigit(static_cast<unsigned char>(c))
                                      ? c - '0'
                                      : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10);
      }
      if (body_.size() + v > max_body_)
        return Status::Error(Code::kLimitReached, "the answer is larger than the HSM reads");
      left_ = v;
      phase_ = v == 0 ? Phase::kTrailer : Phase::kChunkData;
      return Status::Ok();
    }
    case Phase::kChunkEnd:
      if (!NextLine(&line)) return Status::Ok();
      if (!line.empty()) return Malformed("chunk not followed by a line break");
      *progress = true;
      phase_ = Phase::kChunkSize;
      return Status::Ok();
    case Phase::kTrailer:
      if (!NextLine(&line)) return Status::Ok();
      *progress = true;
      if (line.empty()) phase_ = Phase::kDone;
      return Status::Ok();
    case Phase::kToClose: {
      const size_t n = pending_.size() - used_;
      if (n == 0) return Status::Ok();
      QL_RETURN_IF_ERROR(Append(std::string_view(pending_.data() + used_, n)));
      used_ += n;
      *progress = true;
      return Status::Ok();
    }
    case Phase::kDone:
      return Status::Ok();
  }
  return Status::Ok();
}

Status AnswerReader::Add(std::string_view bytes) {
  if (phase_ == Phase::kDone) return Status::Ok();  // anything after the answer is ignored
  pending_.append(bytes);
  bool progress = true;
  while (progress && phase_ != Phase::kDone) QL_RETURN_IF_ERROR(Step(&progress));
  // Keep only what is not consumed yet: body bytes are taken as they come, so what stays is a
  // line still being waited for, which may not grow without end.
  if (used_ > 0) {
    pending_.erase(0, used_);
    used_ = 0;
  }
  if (phase_ != Phase::kDone && pending_.size() > kMaxLine) return Malformed("a line without end");
  return Status::Ok();
}

Status AnswerReader::Close() {
  if (phase_ == Phase::kToClose) phase_ = Phase::kDone;
  if (phase_ != Phase::kDone) return Malformed("the connection closed before the answer ended");
  return Status::Ok();
}

namespace {

using Clock = std::chrono::steady_clock;

struct SslCtxFree {
  void operator()(SSL_CTX *c) const { SSL_CTX_free(c); }
};
struct SslFree {
  void operator()(SSL *s) const { SSL_free(s); }
};
struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};
struct AddrFree {
  void operator()(addrinfo *a) const { freeaddrinfo(a); }
};

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

Status TimedOut() {
  return Status::Error(Code::kTimeout, "the exchange did not finish within its timeout");
}
Status Remote(const std::string &why) {
  return Status::Error(Code::kRemoteFailed, why);
}

// When an exchange must end: its timeout, or earlier when the daemon stops.
struct Deadline {
  Clock::time_point at;
  const std::atomic<bool> *stop = nullptr;
  bool stopping() const { return stop != nullptr && stop->load(std::memory_order_relaxed); }
};

// Milliseconds left before the deadline (0 when it has passed).
int Left(Clock::time_point deadline) {
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return ms <= 0 ? 0 : static_cast<int>(std::min<int64_t>(ms, 1 << 30));
}

// Waits for `events` on fd until the deadline: Ok, kTimeout, or kRemoteFailed once the daemon
// stops (looked at every kStopCheckMs).
Status Wait(int fd, short events, const Deadline &deadline) {
  for (;;) {
    if (deadline.stopping()) return Remote("the HSM is stopping");
    const int left = Left(deadline.at);
    if (left == 0) return TimedOut();
    pollfd p{fd, events, 0};
    const int n = ::poll(&p, 1, std::min(left, kStopCheckMs));
    if (n > 0) return Status::Ok();
    if (n < 0 && errno != EINTR) return Remote("poll failed");
  }
}

// A non-blocking TCP connection to one of the host's addresses.
Status Connect(const Url &url, const Deadline &deadline, Fd *out) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  const std::string port = std::to_string(url.port);
  if (::getaddrinfo(url.bare_host().c_str(), port.c_str(), &hints, &found) != 0 || !found)
    return Remote("the host does not resolve");
  std::unique_ptr<addrinfo, AddrFree> list(found);
  std::string last = "no address";
  for (addrinfo *a = list.get(); a != nullptr; a = a->ai_next) {
    Fd fd(::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol));
    if (fd.get() < 0) continue;
    if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) != 0) {
      if (errno != EINPROGRESS) {
        last = std::strerror(errno);
        continue;
      }
      QL_RETURN_IF_ERROR(Wait(fd.get(), POLLOUT, deadline));
      int err = 0;
      socklen_t len = sizeof err;
      if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
        last = std::strerror(err);
        continue;
      }
    }
    out->reset(fd.release());
    return Status::Ok();
  }
  return Remote("connection failed: " + last);
}

// Runs one non-blocking TLS step until it is done, waiting as OpenSSL asks.
template <typename Step>
Result<int> Drive(SSL *ssl, int fd, const Deadline &deadline, Step step, const char *what) {
  for (;;) {
    ERR_clear_error();
    const int rc = step();
    if (rc > 0) return rc;
    const int err = SSL_get_error(ssl, rc);
    if (err == SSL_ERROR_WANT_READ) {
      QL_RETURN_IF_ERROR(Wait(fd, POLLIN, deadline));
    } else if (err == SSL_ERROR_WANT_WRITE) {
      QL_RETURN_IF_ERROR(Wait(fd, POLLOUT, deadline));
    } else if (err == SSL_ERROR_ZERO_RETURN) {
      return 0;  // a clean close
    } else {
      std::string why = std::string(what) + " failed";
      const long verify = SSL_get_verify_result(ssl);
      if (verify != X509_V_OK) why += std::string(": ") + X509_verify_cert_error_string(verify);
      return Remote(why);
    }
  }
}

Result<std::unique_ptr<SSL_CTX, SslCtxFree>> ClientContext(const Exchange &ex) {
  std::unique_ptr<SSL_CTX, SslCtxFree> ctx(SSL_CTX_new(TLS_client_method()));
  if (!ctx) return Status::Error(Code::kInternal, "SSL_CTX_new");
  SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
  const unsigned char *p = ex.certificate.data();
  std::unique_ptr<X509, X509Free> cert(
      d2i_X509(nullptr, &p, static_cast<long>(ex.certificate.size())));
  if (!cert || SSL_CTX_use_certificate(ctx.get(), cert.get()) != 1 ||
      SSL_CTX_use_PrivateKey(ctx.get(), ex.key) != 1 || SSL_CTX_check_private_key(ctx.get()) != 1)
    return Status::Error(Code::kKeyCertMismatch, "the client identity does not load");
  X509_STORE *store = SSL_CTX_get_cert_store(ctx.get());
  for (const secure::Bytes &der : ex.anchors) {
    const unsigned char *q = der.data();
    std::unique_ptr<X509, X509Free> anchor(d2i_X509(nullptr, &q, static_cast<long>(der.size())));
    if (!anchor) return Status::Error(Code::kBadCert, "a chain certificate does not parse");
    X509_STORE_add_cert(store, anchor.get());
  }
  X509_VERIFY_PARAM *param = SSL_CTX_get0_param(ctx.get());
  // Every certificate of the chain object is a trust anchor, a CA's or an intermediate's.
  X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
  X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(ex.now));
  SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
  return ctx;
}

}  // namespace

Result<Answer> Perform(const Exchange &ex) {
  if (ex.stop != nullptr && ex.stop->load()) return Remote("the HSM is stopping");
  const Deadline deadline{Clock::now() + std::chrono::milliseconds(ex.timeout_ms), ex.stop};
  Result<std::unique_ptr<SSL_CTX, SslCtxFree>> ctx = ClientContext(ex);
  if (!ctx.ok()) return ctx.status();
  Fd fd;
  QL_RETURN_IF_ERROR(Connect(ex.url, deadline, &fd));

  std::unique_ptr<SSL, SslFree> ssl(SSL_new(ctx->get()));
  if (!ssl || SSL_set_fd(ssl.get(), fd.get()) != 1)
    return Status::Error(Code::kInternal, "SSL_new");
  const std::string host = ex.url.bare_host();
  X509_VERIFY_PARAM *param = SSL_get0_param(ssl.get());
  if (ex.url.host_is_ip()) {
    X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
  } else {
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size());
    SSL_set_tlsext_host_name(ssl.get(), host.c_str());  // SNI carries names, never addresses
  }
  SSL *s = ssl.get();
  Result<int> shook = Drive(
      s, fd.get(), deadline, [s] { return SSL_connect(s); }, "TLS handshake");
  if (!shook.ok()) return shook.status();
  if (*shook == 0) return Remote("the server closed the connection during the handshake");

  std::string request = ex.method + " " + ex.url.target + " HTTP/1.1\r\nHost: " + ex.url.host +
                        (ex.url.port == 443 ? "" : ":" + std::to_string(ex.url.port)) + "\r\n";
  if (!ex.body.empty() || ex.method == "POST" || ex.method == "PUT")
    request += "Content-Length: " + std::to_string(ex.body.size()) + "\r\n";
  request += "Connection: close\r\n" + ex.headers + "\r\n";
  request.append(ex.body.begin(), ex.body.end());
  size_t sent = 0;
  while (sent < request.size()) {
    const char *at = request.data() + sent;
    const int n = static_cast<int>(std::min<size_t>(request.size() - sent, 1 << 20));
    Result<int> wrote = Drive(
        s, fd.get(), deadline, [s, at, n] { return SSL_write(s, at, n); }, "TLS write");
    if (!wrote.ok()) return wrote.status();
    if (*wrote == 0) return Remote("the server closed the connection");
    sent += static_cast<size_t>(*wrote);
  }

  AnswerReader reader;
  char buffer[16384];
  while (!reader.complete()) {
    Result<int> got = Drive(
        s, fd.get(), deadline,
        [s, &buffer] { return SSL_read(s, buffer, static_cast<int>(sizeof buffer)); }, "TLS read");
    if (!got.ok()) {
      // A server that closes without close_notify ends an answer read to the close too.
      if (got.status().code() != Code::kRemoteFailed) return got.status();
      QL_RETURN_IF_ERROR(reader.Close());
      break;
    }
    if (*got == 0) {
      QL_RETURN_IF_ERROR(reader.Close());
      break;
    }
    QL_RETURN_IF_ERROR(reader.Add(std::string_view(buffer, static_cast<size_t>(*got))));
  }
  Answer answer;
  answer.status = reader.status();
  answer.body = std::move(reader.body());
  return answer;
}

}  // namespace qlhsm::pix
