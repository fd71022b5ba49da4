#include "frame.h"

namespace qlproto {

FrameStatus DecodeFrameHeader(const unsigned char *header, uint32_t max_frame, uint32_t *length) {
  const uint32_t n = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) |
                     (uint32_t{header[2]} << 8) | uint32_t{header[3]};
  *length = n;
  if (n == 0) return FrameStatus::kEmpty;
  if (n > max_frame || n > kAbsoluteMaxFrame) return FrameStatus::kTooLarge;
  return FrameStatus::kOk;
}

FrameStatus EncodeFrame(const google::protobuf::MessageLite &message, uint32_t max_frame,
                        std::string *out) {
  const std::size_t size = message.ByteSizeLong();
  if (size == 0) return FrameStatus::kEmpty;
  if (size > max_frame || size > kAbsoluteMaxFrame) return FrameStatus::kTooLarge;
  const std::size_t at = out->size();
  out->resize(at + kFrameHeaderSize + size);
  auto *p = reinterpret_cast<unsigned char *>(out->data() + at);
  p[0] = static_cast<unsigned char>(size >> 24);
  p[1] = static_cast<unsigned char>(size >> 16);
  p[2] = static_cast<unsigned char>(size >> 8);
  p[3] = static_cast<unsigned char>(size);
  if (!message.SerializeToArray(p + kFrameHeaderSize, static_cast<int>(size))) {
    out->resize(at);
    return FrameStatus::kBadMessage;
  }
  return FrameStatus::kOk;
}

FrameStatus DecodeFrameBody(std::string_view body, google::protobuf::MessageLite *message) {
  if (body.empty()) return FrameStatus::kEmpty;
  if (!message->ParseFromArray(body.data(), static_cast<int>(body.size()))) {
    return FrameStatus::kBadMessage;
  }
  return FrameStatus::kOk;
}

void FrameReader::Append(const void *data, std::size_t size) {
  // Drop consumed bytes before growing, so the buffer stays near one frame in size.
  if (start_ > 0 && start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  } else if (start_ > 4096 && start_ * 2 > buffer_.size()) {
    buffer_.erase(0, start_);
    start_ = 0;
  }
  buffer_.append(static_cast<const char *>(data), size);
}

FrameStatus FrameReader::Next(std::string *body, bool *complete) {
  *complete = false;
  if (buffered() < kFrameHeaderSize) return FrameStatus::kEmpty;
  uint32_t length = 0;
  const auto *header = reinterpret_cast<const unsigned char *>(buffer_.data() + start_);
  const FrameStatus status = DecodeFrameHeader(header, max_frame_, &length);
  if (status != FrameStatus::kOk) {
    *complete = true;  // a verdict, not a wait for more bytes
    return status;
  }
  if (buffered() - kFrameHeaderSize < length) return FrameStatus::kEmpty;
  body->assign(buffer_, start_ + kFrameHeaderSize, length);
  start_ += kFrameHeaderSize + length;
  *complete = true;
  return FrameStatus::kOk;
}

}  // namespace qlproto
