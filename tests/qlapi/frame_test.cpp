// The frame codec both ends use: limits checked before allocation, partial input, bad bodies.
#include "frame.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qlproto::FrameStatus;

std::string Header(uint32_t n) {
  return std::string{static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                     static_cast<char>(n >> 8), static_cast<char>(n)};
}

TEST(Frame, HeaderLimits) {
  struct Case {
    uint32_t length;
    uint32_t max;
    FrameStatus status;
  } cases[] = {
      {1, 100, FrameStatus::kOk},
      {100, 100, FrameStatus::kOk},
      {101, 100, FrameStatus::kTooLarge},
      {0, 100, FrameStatus::kEmpty},
      {0xFFFFFFFFu, 0xFFFFFFFFu, FrameStatus::kTooLarge},  // never past the absolute limit
      {qlproto::kDefaultMaxFrame, qlproto::kDefaultMaxFrame, FrameStatus::kOk},
  };
  for (const Case &k : cases) {
    const std::string h = Header(k.length);
    uint32_t got = 0;
    EXPECT_EQ(
        qlproto::DecodeFrameHeader(reinterpret_cast<const unsigned char *>(h.data()), k.max, &got),
        k.status)
        << k.length;
    EXPECT_EQ(got, k.length);
  }
}

TEST(Frame, RoundTripThroughAReaderByteByByte) {
  qlhsm::v1::Request a, b;
  a.set_id(7);
  a.mutable_get_random()->set_length(16);
  b.set_id(8);
  b.mutable_login()->set_user("master");
  std::string wire;
  ASSERT_EQ(qlproto::EncodeFrame(a, 1024, &wire), FrameStatus::kOk);
  ASSERT_EQ(qlproto::EncodeFrame(b, 1024, &wire), FrameStatus::kOk);
  EXPECT_NE(static_cast<unsigned char>(wire[0]), 0x16) << "a plain frame never looks like TLS";

  qlproto::FrameReader reader(1024);
  std::vector<qlhsm::v1::Request> got;
  for (char c : wire) {
    reader.Append(&c, 1);
    std::string body;
    bool complete = false;
    if (reader.Next(&body, &complete) == FrameStatus::kOk) {
      ASSERT_TRUE(complete);
      qlhsm::v1::Request r;
      ASSERT_EQ(qlproto::DecodeFrameBody(body, &r), FrameStatus::kOk);
      got.push_back(r);
    } else {
      ASSERT_FALSE(complete);
    }
  }
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].get_random().length(), 16u);
  EXPECT_EQ(got[1].login().user(), "master");
  EXPECT_EQ(reader.buffered(), 0u);
}

TEST(Frame, ReaderRefusesAnOversizedHeaderAtOnce) {
  qlproto::FrameReader reader(64);
  const std::string h = Header(65);
  reader.Append(h.data(), h.size());  // no body follows: the verdict must not wait for it
  std::string body;
  bool complete = false;
  EXPECT_EQ(reader.Next(&body, &complete), FrameStatus::kTooLarge);
  EXPECT_TRUE(complete);
}

TEST(Frame, EncoderRefusesWhatTheReaderWould) {
  qlhsm::v1::Request big;
  big.set_id(1);
  big.mutable_write_file()->set_data(std::string(100, 'x'));
  std::string wire = "keep";
  EXPECT_EQ(qlproto::EncodeFrame(big, 50, &wire), FrameStatus::kTooLarge);
  EXPECT_EQ(wire, "keep");
  qlhsm::v1::Request empty;
  EXPECT_EQ(qlproto::EncodeFrame(empty, 50, &wire), FrameStatus::kEmpty);
}

TEST(Frame, GarbageBodyIsABadMessage) {
  qlhsm::v1::Response r;
  EXPECT_EQ(qlproto::DecodeFrameBody(std::string("\xff\xff\xff\xff\xff", 5), &r),
            FrameStatus::kBadMessage);
  EXPECT_EQ(qlproto::DecodeFrameBody("", &r), FrameStatus::kEmpty);
}

}  // namespace
