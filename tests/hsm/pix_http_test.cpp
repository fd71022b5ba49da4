// The parsing half of the HSM's HTTPS client: URLs, the caller's header lines and answers fed
// in pieces. The network half is exercised end to end (tests/qlapi/e2e/e2e_pix_request_test).
#include "engine/services/pix_http.h"

#include <gtest/gtest.h>

#include <string>

namespace qlhsm::pix {
namespace {

TEST(PixUrl, KeepsHostPortAndTargetAndRefusesAnythingElse) {
  const struct {
    const char *url;
    const char *endpoint;  // null: refused
    const char *target;
  } cases[] = {
      {"https://Pix.Example/api/v2?x=1", "pix.example:443", "/api/v2?x=1"},
      {"HTTPS://pix.example:8443", "pix.example:8443", "/"},
      {"https://127.0.0.1:9/?q", "127.0.0.1:9", "/?q"},
      {"https://[::1]:8443/a", "[::1]:8443", "/a"},
      {"http://pix.example/", nullptr, nullptr},
      {"https://", nullptr, nullptr},
      {"https://pix.example:0/", nullptr, nullptr},
      {"https://pix.example:65536/", nullptr, nullptr},
      {"https://pix.example:/", nullptr, nullptr},
      {"https://user@pix.example/", nullptr, nullptr},
      {"https://pix.example/a#frag", nullptr, nullptr},
      {"https://pix.example/a b", nullptr, nullptr},
      {"https://pix.example/a\r\nHost: evil", nullptr, nullptr},
      {"https://[zz]/", nullptr, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.url);
    Result<Url> url = ParseUrl(c.url);
    if (c.endpoint == nullptr) {
      EXPECT_EQ(url.status().code(), Code::kBadArgument);
      continue;
    }
    ASSERT_TRUE(url.ok());
    EXPECT_EQ(url->endpoint(), c.endpoint);
    EXPECT_EQ(url->target, c.target);
  }
  EXPECT_EQ(ParseUrl("https://[::1]/").value().bare_host(), "::1");
  EXPECT_TRUE(ParseUrl("https://[::1]/").value().host_is_ip());
  EXPECT_FALSE(ParseUrl("https://localhost/").value().host_is_ip());
}

TEST(PixUrl, EndpointsNeedAPortAndMatchTheUrlForm) {
  EXPECT_EQ(ParseEndpoint("LocalHost:8443").value(),
            ParseUrl("https://localhost:8443/x")->endpoint());
  EXPECT_EQ(ParseEndpoint("[::1]:443").value(), ParseUrl("https://[::1]/")->endpoint());
  for (const char *bad : {"localhost", "localhost:", ":443", "localhost:x", "[::1]"}) {
    EXPECT_FALSE(ParseEndpoint(bad).ok()) << bad;
  }
}

TEST(PixHeaders, NormalisedToCrlfLinesAndInjectionRefused) {
  EXPECT_EQ(NormaliseHeaders("").value(), "");
  EXPECT_EQ(NormaliseHeaders("Accept:  application/json \nX-Id: 7\r\n").value(),
            "Accept: application/json\r\nX-Id: 7\r\n");
  const char *refused[] = {
      "X-A: 1\rX-B: 2",      // a lone CR inside a line
      "X-A: 1\n\nX-B: 2",    // an empty line would end the header section
      "X-A: 1\n folded",     // obsolete line folding
      "no colon",            // not "Name: value"
      ": empty name",        //
      "Bad Name: 1",         // a space in the name
      "Host: evil.example",  // headers the HSM writes itself
      "content-length: 0",   //
      "Transfer-Encoding: chunked",
      "Connection: keep-alive",
  };
  for (const char *h : refused) {
    EXPECT_EQ(NormaliseHeaders(h).status().code(), Code::kBadArgument) << h;
  }
  EXPECT_EQ(NormaliseHeaders(std::string("X-A: 1\0x", 8)).status().code(), Code::kBadArgument);
}

// Feeds `answer` one byte at a time, then closes when `close` is set.
Status FeedBytewise(AnswerReader &r, const std::string &answer, bool close) {
  for (char c : answer) {
    Status st = r.Add(std::string_view(&c, 1));
    if (!st.ok()) return st;
  }
  return close ? r.Close() : Status::Ok();
}

TEST(PixAnswer, BodiesByLengthChunksAndCloseInAnyPieces) {
  const struct {
    const char *name;
    std::string answer;
    bool close;
    uint32_t status;
    std::string body;
  } cases[] = {
      {"length", "HTTP/1.1 201 Created\r\nContent-Length: 5\r\n\r\nhello", false, 201, "hello"},
      {"length, bytes past it ignored", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nabcd", false,
       200, "ab"},
      {"chunked with extension and trailer",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4;x=y\r\nWiki\r\n"
       "A\r\n pedia in \r\n0\r\nX-T: 1\r\n\r\n",
       false, 200, "Wiki pedia in "},
      {"chunked wins over length",
       "HTTP/1.1 200 OK\r\nContent-Length: 99\r\nTransfer-Encoding: gzip, chunked\r\n\r\n"
       "3\r\nabc\r\n0\r\n\r\n",
       false, 200, "abc"},
      {"to the close", "HTTP/1.0 404 Not Found\r\n\r\nnot here", true, 404, "not here"},
      {"interim answer skipped",
       "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 500 Oops\r\nContent-Length: 1\r\n\r\nx", false, 500,
       "x"},
      {"no body", "HTTP/1.1 204 No Content\r\nContent-Length: 3\r\n\r\n", false, 204, ""},
      {"LF-only lines", "HTTP/1.1 200 OK\nContent-Length: 1\n\nz", false, 200, "z"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    AnswerReader whole, bytewise;
    ASSERT_TRUE(whole.Add(c.answer).ok());
    if (c.close) {
      ASSERT_TRUE(whole.Close().ok());
    }
    ASSERT_TRUE(FeedBytewise(bytewise, c.answer, c.close).ok());
    for (AnswerReader *r : {&whole, &bytewise}) {
      EXPECT_TRUE(r->complete());
      EXPECT_EQ(r->status(), c.status);
      EXPECT_EQ(r->body(), c.body);
    }
  }
}

TEST(PixAnswer, MalformedCutShortAndOversizeAnswersRefused) {
  const struct {
    const char *name;
    std::string answer;
    Code code;
  } cases[] = {
      {"no status line", "\r\n\r\n", Code::kRemoteFailed},
      {"not HTTP", "SSH-2.0-x\r\n\r\n", Code::kRemoteFailed},
      {"bad status", "HTTP/1.1 2x0 OK\r\n\r\n", Code::kRemoteFailed},
      {"two lengths", "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
       Code::kRemoteFailed},
      {"bad length", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n", Code::kRemoteFailed},
      {"bad chunk size", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
       Code::kRemoteFailed},
      {"chunk overruns", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nab\r\n",
       Code::kRemoteFailed},
      {"length over the limit", "HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\n",
       Code::kLimitReached},
      {"chunks over the limit",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n6\r\nabcdef\r\n6\r\n",
       Code::kLimitReached},
      {"close over the limit", "HTTP/1.1 200 OK\r\n\r\n0123456789A", Code::kLimitReached},
      {"a chunk's line break never comes",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na" + std::string(70000, 'b'),
       Code::kRemoteFailed},
      {"a header section without end", "HTTP/1.1 200 OK\r\n" + std::string(70000, 'h'),
       Code::kRemoteFailed},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    AnswerReader r(10);
    EXPECT_EQ(r.Add(c.answer).code(), c.code);
  }
  // An answer cut short by the close of the connection.
  for (const char *cut : {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel",
                          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n",
                          "HTTP/1.1 200 OK\r\nContent-"}) {
    AnswerReader r;
    ASSERT_TRUE(r.Add(cut).ok()) << cut;
    EXPECT_EQ(r.Close().code(), Code::kRemoteFailed) << cut;
  }
}

}  // namespace
}  // namespace qlhsm::pix
