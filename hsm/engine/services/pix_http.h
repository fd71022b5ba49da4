// The HTTPS client of PIX requests: the HSM itself calls the service, so the client key signs the
// TLS handshake without leaving it. Parsing (URL, the caller's header lines, the answer) is kept
// apart from the sockets so that it can be tested on its own.
#pragma once

#include <openssl/evp.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/secure/secure.h"
#include "engine/status.h"

namespace qlhsm::pix {

// Largest answer body the HSM reads; a larger one is kLimitReached.
inline constexpr size_t kMaxAnswerBody = 16u << 20;

// https://host[:port]/path?query. The host is lowercased; an IPv6 literal keeps its brackets.
struct Url {
  std::string host;  // as written in the URL (brackets included for IPv6)
  uint16_t port = 443;
  std::string target;  // path and query, "/" when the URL has none
  // The host without brackets: what is resolved and checked against the server's certificate.
  std::string bare_host() const;
  bool host_is_ip() const;
  std::string endpoint() const { return host + ":" + std::to_string(port); }
  std::string path() const { return target.substr(0, target.find('?')); }
};

// kBadArgument for anything but an https URL with a host (user information and fragments are
// refused too).
Result<Url> ParseUrl(std::string_view url);

// An allowed endpoint "HOST:PORT" (an IPv6 host in brackets) in the form Url::endpoint() gives;
// kBadArgument when it does not parse.
Result<std::string> ParseEndpoint(std::string_view text);

// The caller's header lines ("Name: value", separated by LF or CRLF) as CRLF-ended lines ready
// for the request. kBadArgument for a CR or NUL inside a line, an empty line between others, a
// line without a token name and a colon, a folded line, and for the headers the HSM writes
// itself (Host, Content-Length, Transfer-Encoding, Connection).
Result<std::string> NormaliseHeaders(std::string_view headers);

// Reads an HTTP/1.1 answer as its bytes arrive: a body by Content-Length, chunked, or up to the
// close of the connection; interim (1xx) answers are skipped. A malformed answer is
// kRemoteFailed, a body over the limit kLimitReached.
class AnswerReader {
 public:
  explicit AnswerReader(size_t max_body = kMaxAnswerBody) : max_body_(max_body) {}
  Status Add(std::string_view bytes);
  // The peer closed the connection: completes an answer read to the close, else kRemoteFailed
  // for one cut short.
  Status Close();
  bool complete() const { return phase_ == Phase::kDone; }
  uint32_t status() const { return status_; }
  std::string &body() { return body_; }

 private:
  enum class Phase { kHead, kFixed, kChunkSize, kChunkData, kChunkEnd, kTrailer, kToClose, kDone };
  Status Step(bool *progress);
  Status Head(std::string_view head);
  Status Append(std::string_view data);
  // The next line from pending_ (without its line break), if a whole one is there.
  bool NextLine(std::string_view *line);

  size_t max_body_;
  Phase phase_ = Phase::kHead;
  std::string pending_;  // received, not yet consumed
  size_t used_ = 0;      // consumed bytes at the front of pending_
  std::string body_;
  uint32_t status_ = 0;
  uint64_t left_ = 0;  // bytes of the fixed body or of the current chunk still to come
};

// One exchange: the request written and its answer read, all within the deadline.
struct Exchange {
  Url url;
  std::string method;
  std::string headers;  // NormaliseHeaders' form
  secure::Bytes body;
  EVP_PKEY *key = nullptr;             // the client's key (the key cache's)
  secure::Bytes certificate;           // the client's certificate (DER)
  std::vector<secure::Bytes> anchors;  // the server's trust anchors (DER)
  int64_t now = 0;                     // the HSM's time, for the server's certificate
  uint32_t timeout_ms = 0;
  // When set (may be null), the exchange ends within kStopCheckMs with kRemoteFailed.
  const std::atomic<bool> *stop = nullptr;
};

// How often a waiting exchange looks at Exchange::stop.
inline constexpr int kStopCheckMs = 250;

struct Answer {
  uint32_t status = 0;
  std::string body;
};

// TCP (non-blocking, with the deadline), TLS 1.2 or 1.3 with the client identity, the server
// checked against the anchors and the URL's host, then HTTP/1.1 with Connection: close.
// kTimeout past the deadline; kRemoteFailed when the host does not resolve, no address accepts,
// the TLS handshake fails (an untrusted server included) or the answer is malformed.
Result<Answer> Perform(const Exchange &ex);

}  // namespace qlhsm::pix
