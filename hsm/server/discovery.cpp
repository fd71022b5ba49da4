#include "server/discovery.h"

#include "engine/secure/secure.h"

namespace qlhsm::server {

namespace dw = qlproto::discovery;

DiscoveryResponder::DiscoveryResponder(const asio::any_io_executor &executor,
                                       DiscoveryIdentity identity)
    : socket_(executor), identity_(std::move(identity)) {}

Result<std::unique_ptr<DiscoveryResponder>> DiscoveryResponder::Create(
    const asio::any_io_executor &executor, const std::string &host, uint16_t port,
    DiscoveryIdentity identity) {
  asio::error_code ec;
  asio::ip::address addr = asio::ip::make_address(host, ec);
  if (ec) return Status::Error(Code::kBadArgument, "bad discovery address " + host);
  std::unique_ptr<DiscoveryResponder> r(new DiscoveryResponder(executor, std::move(identity)));
  asio::ip::udp::endpoint ep(addr, port);
  r->socket_.open(ep.protocol(), ec);
  if (!ec) r->socket_.bind(ep, ec);
  if (ec)
    return Status::Error(Code::kBadArgument, "cannot answer discovery on " + host + ":" +
                                                 std::to_string(port) + ": " + ec.message());
  r->Receive();
  return r;
}

void DiscoveryResponder::Close() {
  asio::error_code ec;
  socket_.close(ec);
}

void DiscoveryResponder::Receive() {
  socket_.async_receive_from(asio::buffer(buffer_), sender_,
                             [this](const asio::error_code &ec, size_t len) {
                               if (ec == asio::error::operation_aborted || !socket_.is_open())
                                 return;
                               if (!ec) Answer(len);
                               Receive();
                             });
}

bool DiscoveryResponder::Allowed(const asio::ip::address &from) {
  const auto now = std::chrono::steady_clock::now();
  if (now - window_ >= std::chrono::seconds(1)) {
    recent_.clear();
    window_ = now;
  }
  // A flood from many addresses may fill the table: then nobody is answered until it clears.
  if (recent_.size() >= 4096) return false;
  return ++recent_[from.to_string()] <= kAnswersPerSecond;
}

const std::string &DiscoveryResponder::Fingerprint() {
  std::vector<uint8_t> der =
      identity_.certificate_der ? identity_.certificate_der() : std::vector<uint8_t>{};
  if (der != der_ || fingerprint_.empty()) {
    secure::Bytes digest = secure::Sha256(der);
    fingerprint_.assign(digest.begin(), digest.end());
    der_ = std::move(der);
  }
  return fingerprint_;
}

void DiscoveryResponder::Answer(size_t len) {
  std::optional<dw::Query> query = dw::DecodeQuery(buffer_.data(), len);
  // One answer in flight at a time; a query that comes meanwhile is dropped like any excess.
  if (!query || sending_ || !Allowed(sender_.address())) return;
  dw::Answer a;
  a.service_type = query->service_type;
  a.nonce = query->nonce;
  a.address = identity_.address;
  a.tls_port = identity_.port;
  a.name = identity_.name;
  a.app_port = identity_.port;
  a.family = dw::kFamilySoft;
  a.version = identity_.version;
  a.fingerprint = Fingerprint();
  answer_ = dw::EncodeAnswer(a);
  if (answer_.size() > len) return;  // never more than was asked with
  sending_ = true;
  socket_.async_send_to(asio::buffer(answer_), sender_,
                        [this](const asio::error_code &, size_t) { sending_ = false; });
}

}  // namespace qlhsm::server
