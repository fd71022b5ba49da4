#include "engine/audit/audit_log.h"

#include <zlib.h>

#include <chrono>
#include <ctime>

namespace qlhsm::audit {

std::vector<uint8_t> AuditLog::Compress(std::string_view text) {
  uLongf len = compressBound(static_cast<uLong>(text.size()));
  std::vector<uint8_t> out(len);
  if (compress2(out.data(), &len, reinterpret_cast<const Bytef *>(text.data()),
                static_cast<uLong>(text.size()), Z_BEST_COMPRESSION) != Z_OK)
    return {};
  out.resize(len);
  return out;
}

Result<std::string> AuditLog::Inflate(const std::vector<uint8_t> &data, uint64_t raw_len) {
  std::string out(raw_len, '\0');
  uLongf len = static_cast<uLongf>(raw_len);
  if (uncompress(reinterpret_cast<Bytef *>(out.data()), &len, data.data(),
                 static_cast<uLong>(data.size())) != Z_OK ||
      len != raw_len)
    return Status::Error(Code::kInternal, "corrupt log page");
  return out;
}

AuditLog::AuditLog(store::Store &store, size_t page_size, const Clock *clock)
    : store_(store), page_size_(page_size), clock_(clock ? clock : &MachineClock()) {
  writer_ = std::thread([this] { WriterLoop(); });
}

AuditLog::~AuditLog() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  wake_.notify_one();
  writer_.join();
  (void)Flush();
}

void AuditLog::WriterLoop() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !closed_.empty(); });
    if (stopping_) return;
    lock.unlock();
    const bool written = Flush().ok();
    lock.lock();
    // A store that fails now is tried again a little later, not in a tight loop.
    if (!written) wake_.wait_for(lock, std::chrono::seconds(1), [this] { return stopping_; });
  }
}

Status AuditLog::Load() {
  return store_.Locked([&](store::Connection &conn) -> Status {
    Result<store::Statement> st = conn.Prepare(
        "SELECT page_no, compressed, raw_len, data FROM audit_pages ORDER BY page_no DESC LIMIT 1");
    if (!st.ok()) return st.status();
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    std::lock_guard<std::mutex> lock(mu_);
    current_.clear();
    current_number_ = 1;
    if (row.value()) {
      current_number_ = static_cast<uint64_t>(st->Int(0));
      if (st->Int(1) != 0) {
        ++current_number_;  // the last page was closed: start a new one
      } else {
        std::vector<uint8_t> d = st->Blob(3);
        current_.assign(d.begin(), d.end());
      }
    }
    Result<store::Statement> sum =
        conn.Prepare("SELECT COALESCE(SUM(raw_len), 0) FROM audit_pages WHERE page_no < ?1");
    if (!sum.ok()) return sum.status();
    sum->Bind(1, static_cast<int64_t>(current_number_));
    Result<bool> r = sum->Step();
    if (!r.ok()) return r.status();
    stored_closed_len_ = static_cast<uint64_t>(sum->Int(0));
    return Status::Ok();
  });
}

void AuditLog::Append(std::string_view user, std::string_view op, std::string_view target,
                      int code) {
  std::time_t t = static_cast<std::time_t>(clock_->Now());
  std::tm tm{};
  gmtime_r(&t, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
  std::string line = std::string(stamp) + " " + std::string(user.empty() ? "-" : user) + " " +
                     std::string(op) + " " + std::string(target.empty() ? "-" : target) + " " +
                     std::to_string(code);
  for (char &c : line)
    if (c == '\n' || c == '\r') c = ' ';
  bool closed = false;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (auto &[id, sink] : followers_) sink(line);
    line.push_back('\n');
    current_ += line;
    dirty_ = true;
    if (current_.size() >= page_size_) {
      CloseCurrentLocked();
      closed = true;
    }
  }
  if (closed) wake_.notify_one();
}

void AuditLog::CloseCurrentLocked() {
  Page page;
  page.number = current_number_;
  page.raw_len = current_.size();
  page.data.assign(current_.begin(), current_.end());  // packed by the flush that writes it
  closed_.push_back(std::move(page));
  current_.clear();
  ++current_number_;
}

Status AuditLog::Flush() {
  std::lock_guard<std::mutex> one_at_a_time(flush_mu_);
  // Take what is to be written, then write it without holding mu_: Append never waits for the
  // disk.
  std::vector<Page> pages;
  Page open;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!dirty_) return Status::Ok();
    pages.swap(closed_);
    for (const Page &p : pages) writing_len_ += p.raw_len;
    open.number = current_number_;
    open.raw_len = current_.size();
    open.data.assign(current_.begin(), current_.end());
    dirty_ = false;
  }
  uint64_t closed_len = 0;
  for (Page &p : pages) {
    closed_len += p.raw_len;
    if (p.compressed) continue;
    std::vector<uint8_t> packed =
        Compress(std::string_view(reinterpret_cast<const char *>(p.data.data()), p.data.size()));
    if (!packed.empty() && packed.size() < p.data.size()) {
      p.compressed = true;
      p.data = std::move(packed);
    }
  }
  Status written = store_.Locked([&](store::Connection &conn) -> Status {
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> st = conn.Prepare(
        "INSERT OR REPLACE INTO audit_pages(page_no, compressed, raw_len, data) "
        "VALUES(?1, ?2, ?3, ?4)");
    if (!st.ok()) return st.status();
    for (const Page &p : pages) {
      st->Reset();
      st->Bind(1, static_cast<int64_t>(p.number)).Bind(2, int64_t{p.compressed ? 1 : 0});
      st->Bind(3, static_cast<int64_t>(p.raw_len)).BindBlob(4, p.data);
      QL_RETURN_IF_ERROR(st->Run());
    }
    if (open.raw_len > 0) {
      st->Reset();
      st->Bind(1, static_cast<int64_t>(open.number)).Bind(2, int64_t{0});
      st->Bind(3, static_cast<int64_t>(open.raw_len)).BindBlob(4, open.data);
      QL_RETURN_IF_ERROR(st->Run());
    }
    return tx.Commit();
  });
  std::lock_guard<std::mutex> lock(mu_);
  writing_len_ -= closed_len;
  if (written.ok()) {
    stored_closed_len_ += closed_len;
  } else {
    // Not written: the pages wait for the next flush, ahead of any closed since.
    closed_.insert(closed_.begin(), std::make_move_iterator(pages.begin()),
                   std::make_move_iterator(pages.end()));
    dirty_ = true;
  }
  return written;
}

Status AuditLog::Truncate() {
  // No flush runs meanwhile (flush_mu_). The store is locked before mu_, in the order Load and
  // Flush take them; mu_ is held from the delete to the reset, so no line falls in between.
  std::lock_guard<std::mutex> one_at_a_time(flush_mu_);
  return store_.Locked([&](store::Connection &conn) -> Status {
    std::lock_guard<std::mutex> lock(mu_);
    store::Transaction tx(conn);
    QL_RETURN_IF_ERROR(tx.begin_status());
    Result<store::Statement> del = conn.Prepare("DELETE FROM audit_pages");
    if (!del.ok()) return del.status();
    QL_RETURN_IF_ERROR(del->Run());
    QL_RETURN_IF_ERROR(tx.Commit());
    closed_.clear();
    current_.clear();
    current_number_ = 1;
    stored_closed_len_ = 0;
    dirty_ = false;
    return Status::Ok();
  });
}

void AuditLog::set_cache(bool on) {
  cache_ = on;
}

bool AuditLog::cache() const {
  return cache_;
}

uint64_t AuditLog::Follow(Sink sink) {
  std::lock_guard<std::mutex> lock(mu_);
  const uint64_t id = next_follower_++;
  followers_.emplace(id, std::move(sink));
  return id;
}

void AuditLog::Unfollow(uint64_t id) {
  std::lock_guard<std::mutex> lock(mu_);
  followers_.erase(id);
}

bool AuditLog::HasClosedPages() {
  std::lock_guard<std::mutex> lock(mu_);
  return !closed_.empty();
}

Result<uint64_t> AuditLog::Size() {
  std::lock_guard<std::mutex> lock(mu_);
  uint64_t n = stored_closed_len_ + writing_len_ + current_.size();
  for (const Page &p : closed_) n += p.raw_len;
  return n;
}

uint64_t AuditLog::PageCount() {
  std::lock_guard<std::mutex> lock(mu_);
  return current_.empty() ? current_number_ - 1 : current_number_;
}

Result<Page> AuditLog::ReadPage(uint64_t number) {
  QL_RETURN_IF_ERROR(Flush());
  return store_.Locked([&](store::Connection &conn) -> Result<Page> {
    Result<store::Statement> st =
        conn.Prepare("SELECT compressed, raw_len, data FROM audit_pages WHERE page_no = ?1");
    if (!st.ok()) return st.status();
    st->Bind(1, static_cast<int64_t>(number));
    Result<bool> row = st->Step();
    if (!row.ok()) return row.status();
    if (!row.value()) return Status::Error(Code::kObjectNotFound, "no such log page");
    Page p;
    p.number = number;
    p.compressed = st->Int(0) != 0;
    p.raw_len = static_cast<uint64_t>(st->Int(1));
    p.data = st->Blob(2);
    return p;
  });
}

}  // namespace qlhsm::audit
