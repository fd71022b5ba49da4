#include "engine/sessions/session.h"

namespace qlhsm::sessions {

bool SessionRegistry::TryAcquire() {
  size_t n = open_.load(std::memory_order_relaxed);
  do {
    if (n >= max_open_) return false;
  } while (!open_.compare_exchange_weak(n, n + 1, std::memory_order_relaxed));
  return true;
}

Session::Session(SessionRegistry &registry) : registry_(registry), id_(registry.NextId()) {}

Session::~Session() {
  Reset();
}

Status Session::Attach(AuthKind kind, std::string user) {
  if (!counted_) {
    if (!registry_.TryAcquire())
      return Status::Error(Code::kLimitReached, "too many open sessions");
    counted_ = true;
  }
  auth_ = kind;
  user_ = std::move(user);
  return Status::Ok();
}

void Session::Reset() {
  // Dropping the last reference frees the key; crypto::Key wipes its secret on destruction.
  temps_.clear();
  opened_.clear();
  hashes_.clear();
  ciphers_.clear();
  contexts_.clear();
  if (counted_) registry_.Release();
  counted_ = false;
  auth_ = AuthKind::kNone;
  user_.clear();
}

uint64_t Session::AddTemp(TempObject obj) {
  uint64_t h = next_handle_++;
  temps_.emplace(h, std::move(obj));
  return h;
}

TempObject *Session::FindTemp(uint64_t handle) {
  auto it = temps_.find(handle);
  return it == temps_.end() ? nullptr : &it->second;
}

TempObject *Session::FindTempByName(std::string_view name) {
  if (name.empty()) return nullptr;
  for (auto &[handle, obj] : temps_) {
    if (obj.name == name) return &obj;
  }
  return nullptr;
}

uint64_t Session::AddOpened(std::string full_name) {
  uint64_t h = next_handle_++;
  opened_.emplace(h, std::move(full_name));
  return h;
}

const std::string *Session::FindOpened(uint64_t handle) const {
  auto it = opened_.find(handle);
  return it == opened_.end() ? nullptr : &it->second;
}

bool Session::RemoveOpened(uint64_t handle) {
  ciphers_.erase(handle);
  return opened_.erase(handle) != 0;
}

crypto::CipherState *Session::FindCipher(uint64_t handle) {
  auto it = ciphers_.find(handle);
  return it == ciphers_.end() ? nullptr : &it->second;
}

crypto::CipherState &Session::AddCipher(uint64_t handle, crypto::KeyPtr key) {
  return ciphers_.emplace(handle, crypto::CipherState(std::move(key))).first->second;
}

uint64_t Session::AddHash(crypto::HashState state) {
  uint64_t h = next_handle_++;
  hashes_.emplace(h, std::move(state));
  return h;
}

crypto::HashState *Session::FindHash(uint64_t handle) {
  auto it = hashes_.find(handle);
  return it == hashes_.end() ? nullptr : &it->second;
}

bool Session::RemoveHash(uint64_t handle) {
  return hashes_.erase(handle) != 0;
}

uint64_t Session::AddContext(std::unique_ptr<SessionContext> context) {
  uint64_t h = next_handle_++;
  contexts_.emplace(h, std::move(context));
  return h;
}

SessionContext *Session::FindContext(uint64_t handle) {
  auto it = contexts_.find(handle);
  return it == contexts_.end() ? nullptr : it->second.get();
}

bool Session::RemoveContext(uint64_t handle) {
  return contexts_.erase(handle) != 0;
}

bool Session::RemoveTemp(uint64_t handle) {
  auto it = temps_.find(handle);
  if (it == temps_.end()) return false;
  ciphers_.erase(handle);
  temps_.erase(it);
  return true;
}

}  // namespace qlhsm::sessions
