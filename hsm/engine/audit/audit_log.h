// The audit log: one line per operation ("2026-11-23 10:00:00 master create-user alice 0"),
// kept in pages of about `page_size` bytes. The newest page is open and stays plain text; a page is
// closed when it fills, and a closed page is stored deflate-compressed (zlib format, as
// compress2 writes it) when that makes it smaller. Lines never hold passwords, PINs or key
// material: only names, operations and answer codes.
//
// Lines of a change are written to the store right after the change commits; lines of read-only
// requests wait in memory for the next write, so a crash may lose those but never a change's.
// A page that fills is compressed and written by the log's own writer thread, so a request never
// waits for a page's compression or its disk write (read-only traffic alone still cannot let
// closed pages pile up in memory).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "engine/clock.h"
#include "engine/store/store.h"

namespace qlhsm::audit {

struct Page {
  uint64_t number = 0;
  bool compressed = false;
  uint64_t raw_len = 0;  // length of the plain text
  std::vector<uint8_t> data;
};

class AuditLog {
 public:
  // Lines are stamped with `clock` (the HSM's time), which must outlive the log; null: the
  // machine's clock.
  explicit AuditLog(store::Store &store, size_t page_size = 4096, const Clock *clock = nullptr);
  // Stops the writer and writes what is left.
  ~AuditLog();
  AuditLog(const AuditLog &) = delete;
  AuditLog &operator=(const AuditLog &) = delete;

  Status Load();
  // Adds a line (a time stamp is prepended, a newline appended; newlines inside become blanks).
  void Append(std::string_view user, std::string_view op, std::string_view target, int code);
  // Writes closed pages and the open page to the store before it returns.
  Status Flush();
  // True when a filled page waits to be written.
  bool HasClosedPages();
  // The log's size in bytes of plain text, every page counted.
  Result<uint64_t> Size();
  // Number of pages, the open one included.
  uint64_t PageCount();
  // Pages are numbered from 1; kObjectNotFound past the end.
  Result<Page> ReadPage(uint64_t number);

  // Empties the log: every page goes and numbering starts again at 1. Lines added afterwards
  // begin the new log.
  Status Truncate();

  // The log cache. On (the default), lines of read-only requests wait in memory until a change
  // writes them or their page fills; off, every line is written to the store as it is added
  // (the guard flushes after each line).
  void set_cache(bool on);
  bool cache() const;

  // Followers: `sink` gets each line added from now on (without its line end), called under the
  // log's lock and in the log's order, so it must only queue the line and never block. Unfollow
  // returns once no call of that sink runs any more.
  using Sink = std::function<void(const std::string &line)>;
  uint64_t Follow(Sink sink);
  void Unfollow(uint64_t id);

  // deflate helpers, exposed for tests.
  static std::vector<uint8_t> Compress(std::string_view text);
  static Result<std::string> Inflate(const std::vector<uint8_t> &data, uint64_t raw_len);

 private:
  void CloseCurrentLocked();
  void WriterLoop();
  store::Store &store_;
  size_t page_size_;
  const Clock *clock_;
  // Flushes one at a time, so pages reach the store in the order they were taken.
  std::mutex flush_mu_;
  std::mutex mu_;  // the fields below
  std::condition_variable wake_;
  bool stopping_ = false;
  uint64_t current_number_ = 1;
  std::string current_;
  std::vector<Page> closed_;  // closed but not yet stored (plain text until a flush packs it)
  uint64_t stored_closed_len_ = 0;
  uint64_t writing_len_ = 0;  // plain length of closed pages a flush is writing
  bool dirty_ = false;
  std::atomic<bool> cache_{true};
  uint64_t next_follower_ = 1;
  std::map<uint64_t, Sink> followers_;
  std::thread writer_;  // last: started once everything above is ready
};

}  // namespace qlhsm::audit
