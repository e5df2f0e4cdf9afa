// Requests as any peer on the network may send them.
#include "lab/firmware/dash/http_request.h"

#include <gtest/gtest.h>

namespace orrin {
namespace {

const std::string kHost = "Host: h\r\n";
const std::string kChunked = "Transfer-Encoding: chunked\r\n";

std::string Get(const std::string& fields) { return "GET / HTTP/1.1\r\n" + fields + "\r\n"; }
std::string Post(const std::string& fields, const std::string& rest) {
  return "POST / HTTP/1.1\r\n" + kHost + fields + "\r\n" + rest;
}

TEST(HttpRequest, ReadsTheSameAtEverySplit) {
  struct Row {
    std::string bytes;
    std::string body;
    bool keepAlive;
  };
  const Row rows[] = {
      {"\r\n\r\n" + Get(kHost), "", true},
      {"GET https://h:664 HTTP/1.1\r\n" + kHost + "\r\n", "", true},
      {"GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", "", true},
      {Get(kHost + "Connection: x, Close\r\n"), "", false},
      {Post("Content-Length: 2\r\nContent-Length: 2\r\n", "ab"), "ab", true},
      {Post("Content-Length: 4\r\n", "\r\n\r\n"), "\r\n\r\n", true},
      {Post(kChunked, "3\r\nabc\r\nA;x=y\r\n0123456789\r\n0\r\n\r\n"), "abc0123456789", true},
      {Post("Transfer-Encoding: Chunked\r\n", "1\r\nz\r\n0\r\nT: v\r\n\r\n"), "z", true},
  };
  for (const Row& row : rows) {
    for (std::size_t split = 0; split <= row.bytes.size(); ++split) {
      SCOPED_TRACE(row.bytes.substr(0, split) + "|" + row.bytes.substr(split));
      HttpRequestReader reader;
      EXPECT_EQ(reader.Feed(row.bytes.substr(0, split)), split);
      EXPECT_EQ(reader.Feed(row.bytes.substr(split)), row.bytes.size() - split);
      ASSERT_TRUE(reader.IsComplete());
      EXPECT_EQ(reader.Request().target, "/");
      EXPECT_EQ(reader.Request().body, row.body);
      EXPECT_EQ(reader.Request().keepAlive, row.keepAlive);
      EXPECT_EQ(reader.Feed("the next request"), 0u);
    }
  }
}

TEST(HttpRequest, AmbiguousRequestsAreRefused) {
  struct Row {
    std::string bytes;
    int status;
  };
  const Row rows[] = {
      {"GET / HTTP/2.0\r\n\r\n", 505},
      {"GET /a b HTTP/1.1\r\n\r\n", 400},
      {"GET / HTTP/1.1\nHost: h\n\n", 400},
      {Get(""), 400},
      {Get("Host : h\r\n"), 400},
      {Get(kHost + " folded\r\n"), 400},
      {Get(kHost + "A: " + std::string(1, '\0') + "\r\n"), 400},
      {Post("Content-Length: 2\r\nContent-Length: 3\r\n", "abc"), 400},
      {Post("Content-Length: 2\r\n" + kChunked, "ab"), 400},
      {Post("Content-Length: 67108865\r\n", ""), 413},
      {Post("Content-Length: 18446744073709551617\r\n", ""), 413},
      {Post("Transfer-Encoding: gzip\r\n", ""), 501},
      {Post(kChunked, "0x1\r\na\r\n"), 400},
      {Post(kChunked, "1\r\nab\r\n"), 400},
      {Post("Expect: tea\r\nContent-Length: 1\r\n", "a"), 417},
      {Get(kHost + "A: " + std::string(kMaxHttpHead, 'a') + "\r\n"), 431},
      {Post(kChunked, "0\r\nT: " + std::string(kMaxHttpHead, 't') + "\r\n"), 431},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.bytes.substr(0, 200));
    HttpRequestReader reader;
    for (const char& c : row.bytes) (void)reader.Feed({&c, 1});
    EXPECT_EQ(reader.Failure(), row.status);
    EXPECT_FALSE(reader.IsComplete());
  }
}

}  // namespace
}  // namespace orrin
