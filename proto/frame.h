#pragma once
// The frame codec of the wire protocol (see qlhsm.proto): a 4-byte big-endian length followed by
// one protobuf message. Both the library and the daemon use it, so the limits agree.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "qlhsm.pb.h"

namespace qlproto {

constexpr std::size_t kFrameHeaderSize = 4;
// The largest frame either side accepts unless the Hello reply announced another limit.
constexpr uint32_t kDefaultMaxFrame = 16u * 1024u * 1024u;
// No server may accept frames this large: a plain connection's first byte must stay below the
// TLS record type 0x16 that tells the two kinds of connection apart.
constexpr uint32_t kAbsoluteMaxFrame = 0x16000000u - 1u;
// The protocol version of qlhsm.proto; major << 16 | minor.
constexpr uint32_t kProtocolVersion = qlhsm::v1::PROTOCOL_VERSION_CURRENT;
constexpr uint32_t ProtocolMajor(uint32_t version) {
  return version >> 16;
}

enum class FrameStatus {
  kOk,
  kEmpty,     // a length of 0: no message is empty on the wire we speak
  kTooLarge,  // past the maximum: refuse before allocating
  kBadMessage,
};

// Reads the length of the frame whose header is `header` (4 bytes) into *length, and checks it
// against max_frame before anyone allocates the body.
FrameStatus DecodeFrameHeader(const unsigned char *header, uint32_t max_frame, uint32_t *length);

// Appends the frame of `message` to *out: header and body. kTooLarge when the body is longer
// than max_frame, kEmpty when it serialises to nothing (a frame of length 0 is refused by every
// reader); nothing is appended then.
FrameStatus EncodeFrame(const google::protobuf::MessageLite &message, uint32_t max_frame,
                        std::string *out);

// Parses a frame body into *message; kBadMessage when the bytes are not that message.
FrameStatus DecodeFrameBody(std::string_view body, google::protobuf::MessageLite *message);

// Gathers bytes as they arrive and hands out whole frame bodies. Used where reads return what
// they have (a plain socket, a fuzzer's input).
class FrameReader {
 public:
  explicit FrameReader(uint32_t max_frame = kDefaultMaxFrame) : max_frame_(max_frame) {}

  void Append(const void *data, std::size_t size);
  // The next whole frame's body into *body: kOk; kEmpty also when no whole frame is buffered
  // yet (check *complete); kTooLarge as soon as a header announces too much.
  FrameStatus Next(std::string *body, bool *complete);
  std::size_t buffered() const { return buffer_.size() - start_; }

 private:
  uint32_t max_frame_;
  std::string buffer_;
  std::size_t start_ = 0;
};

}  // namespace qlproto
