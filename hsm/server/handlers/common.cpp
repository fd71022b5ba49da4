// Helpers every handler family uses to read a message and write an answer.
#include "server/handlers/handlers.h"

namespace qlhsm::server::handlers {

void SetStatus(const Status &st, pb::Response *r) {
  r->set_code(ToWire(st.code()));
  if (!st.ok() && !st.message().empty()) r->set_detail(st.message());
}

void ReplyEmpty(const Status &st, pb::Response *r) {
  if (st.ok()) r->mutable_empty();
  SetStatus(st, r);
}

secure::Bytes ToBytes(const std::string &s) {
  return secure::Bytes(s.begin(), s.end());
}

std::string ToString(const secure::Bytes &b) {
  return std::string(b.begin(), b.end());
}

KeyArg ToKeyArg(const pb::KeyRef &ref) {
  KeyArg a;
  if (ref.has_handle()) a.handle = ref.handle();
  if (ref.has_name()) a.name = ref.name();
  return a;
}

void SetKeyHandle(const KeyDesc &k, pb::Response *r) {
  auto *h = r->mutable_key_handle();
  h->set_handle(k.handle);
  h->set_algorithm(k.algorithm);
  h->set_flags(k.flags);
  h->set_key_length(k.key_length);
}

void SetNames(const std::vector<std::string> &names, pb::Response *r) {
  auto *list = r->mutable_names();
  for (const auto &n : names) list->add_names(n);
}

uint32_t FramePayload(const Call &c) {
  // Room for the response's own fields around the payload.
  return c.config.max_frame - 64;
}

}  // namespace qlhsm::server::handlers
