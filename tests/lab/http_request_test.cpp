#include "lab/firmware/http_request.h"

#include <gtest/gtest.h>

namespace orrin {
namespace {

const std::string kHost = "Host: h\r\n";

std::string Get(const std::string& fields) { return "GET / HTTP/1.1\r\n" + fields + "\r\n"; }
std::string Post(const std::string& fields, const std::string& rest) {
  return "POST /echo HTTP/1.1\r\n" + kHost + fields + "\r\n" + rest;
}

struct Good {
  const char* name;
  std::string bytes;
  std::string target;
  std::string body;
  bool keepAlive;
};

const Good kGood[] = {
    {"plain", Get(kHost), "/", "", true},
    {"query", "GET /a?b=c HTTP/1.1\r\n" + kHost + "\r\n", "/a?b=c", "", true},
    {"absolute form", "GET https://h:664/x HTTP/1.1\r\n" + kHost + "\r\n", "/x", "", true},
    {"absolute form without path", "GET http://h HTTP/1.1\r\n" + kHost + "\r\n", "/", "", true},
    {"empty lines before", "\r\n\r\n" + Get(kHost), "/", "", true},
    {"old version closes", "GET / HTTP/1.0\r\n\r\n", "/", "", false},
    {"old version kept", "GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", "/", "", true},
    {"close in a list", Get(kHost + "Connection: x, Close\r\n"), "/", "", false},
    {"length", Post("Content-Length: 5\r\n", "hello"), "/echo", "hello", true},
    {"length zero", Post("Content-Length: 0\r\n", ""), "/echo", "", true},
    {"length twice alike", Post("Content-Length: 2\r\nContent-Length: 2\r\n", "ab"), "/echo", "ab",
     true},
    {"chunks",
     Post("Transfer-Encoding: chunked\r\n", "3\r\nabc\r\nA;x=y\r\n0123456789\r\n0\r\n\r\n"),
     "/echo", "abc0123456789", true},
    {"trailer", Post("Transfer-Encoding: Chunked\r\n", "1\r\nz\r\n0\r\nT: v\r\n\r\n"), "/echo", "z",
     true},
    {"body of line ends", Post("Content-Length: 4\r\n", "\r\n\r\n"), "/echo", "\r\n\r\n", true},
};

TEST(HttpRequest, ReadsTheSameAtEverySplit) {
  for (const Good& good : kGood) {
    for (std::size_t split = 0; split <= good.bytes.size(); split++) {
      HttpRequestReader reader;
      const std::string_view all = good.bytes;
      std::size_t taken = reader.Feed(all.substr(0, split));
      ASSERT_EQ(taken, split) << good.name;
      taken += reader.Feed(all.substr(split));
      ASSERT_TRUE(reader.IsComplete()) << good.name << " split at " << split;
      EXPECT_EQ(taken, all.size()) << good.name;
      EXPECT_EQ(reader.Request().target, good.target) << good.name;
      EXPECT_EQ(reader.Request().body, good.body) << good.name;
      EXPECT_EQ(reader.Request().keepAlive, good.keepAlive) << good.name;
    }
  }
}

struct Bad {
  const char* name;
  std::string bytes;
  int status;
};

const Bad kBad[] = {
    {"no version", "GET /\r\n\r\n", 400},
    {"other protocol", "GET / HTTQ/1.1\r\n\r\n", 400},
    {"version 2", "GET / HTTP/2.0\r\n\r\n", 505},
    {"method of no token", "G\x01T / HTTP/1.1\r\n\r\n", 400},
    {"relative target", "GET x HTTP/1.1\r\n\r\n", 400},
    {"blank in target", "GET /a b HTTP/1.1\r\n\r\n", 400},
    {"bare line feed", "GET / HTTP/1.1\nHost: h\n\n", 400},
    {"no host", Get(""), 400},
    {"two hosts", Get(kHost + kHost), 400},
    {"blank before colon", Get("Host : h\r\n"), 400},
    {"folded line", Get(kHost + " more\r\n"), 400},
    {"no colon", Get("Host\r\n"), 400},
    {"zero byte in a value", Get(kHost + "A: " + std::string(1, '\0') + "\r\n"), 400},
    {"two lengths", Post("Content-Length: 2\r\nContent-Length: 3\r\n", "abc"), 400},
    {"length and chunks", Post("Content-Length: 2\r\nTransfer-Encoding: chunked\r\n", "ab"), 400},
    {"negative length", Post("Content-Length: -1\r\n", ""), 400},
    {"signed length", Post("Content-Length: +1\r\n", "a"), 400},
    {"hexadecimal length", Post("Content-Length: 0x1\r\n", "a"), 400},
    {"length past the bound", Post("Content-Length: 67108865\r\n", ""), 413},
    {"length past 64 bits", Post("Content-Length: 18446744073709551617\r\n", ""), 413},
    {"unknown coding", Post("Transfer-Encoding: gzip\r\n", ""), 501},
    {"two codings", Post("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", ""), 400},
    {"chunk of no size", Post("Transfer-Encoding: chunked\r\n", "\r\n"), 400},
    {"chunk with 0x", Post("Transfer-Encoding: chunked\r\n", "0x1\r\na\r\n"), 400},
    {"chunk past the bound", Post("Transfer-Encoding: chunked\r\n", "4000001\r\n"), 413},
    {"chunk past 64 bits", Post("Transfer-Encoding: chunked\r\n", "10000000000000001\r\n"), 400},
    {"chunk longer than said", Post("Transfer-Encoding: chunked\r\n", "1\r\nab\r\n"), 400},
    {"unknown expectation", Post("Expect: tea\r\nContent-Length: 1\r\n", "a"), 417},
    {"long head", Get(kHost + "A: " + std::string(kMaxHttpHead, 'a') + "\r\n"), 431},
    {"long request line", "GET /" + std::string(kMaxHttpHead, 'a'), 431},
    {"long trailer",
     Post("Transfer-Encoding: chunked\r\n", "0\r\nT: " + std::string(kMaxHttpHead, 't') + "\r\n"),
     431},
};

TEST(HttpRequest, RefusesWhatTwoReadersCouldUnderstandDifferently) {
  for (const Bad& bad : kBad) {
    HttpRequestReader whole;
    (void)whole.Feed(bad.bytes);
    EXPECT_EQ(whole.Failure(), bad.status) << bad.name;
    EXPECT_FALSE(whole.IsComplete()) << bad.name;
    HttpRequestReader byByte;
    for (char c : bad.bytes) (void)byByte.Feed({&c, 1});
    EXPECT_EQ(byByte.Failure(), bad.status) << bad.name << ", byte by byte";
  }
}

TEST(HttpRequest, LeavesTheNextRequestAlone) {
  const std::string first = Post("Content-Length: 2\r\n", "ab");
  HttpRequestReader reader;
  EXPECT_EQ(reader.Feed(first + Get(kHost)), first.size());
  EXPECT_TRUE(reader.IsComplete());
  EXPECT_EQ(reader.Feed("more"), 0u);
  reader.Reset();
  (void)reader.Feed(Get(kHost));
  EXPECT_EQ(reader.Request().method, "GET");
  EXPECT_TRUE(reader.Request().body.empty());
}

TEST(HttpRequest, AsksForTheBodyOnce) {
  HttpRequestReader reader;
  (void)reader.Feed(Post("Expect: 100-Continue\r\nContent-Length: 1\r\n", ""));
  EXPECT_TRUE(reader.TakeContinueWish());
  EXPECT_FALSE(reader.TakeContinueWish());
  EXPECT_TRUE(reader.IsPartial());
  (void)reader.Feed("a");
  EXPECT_TRUE(reader.IsComplete());

  HttpRequestReader bodiless;
  (void)bodiless.Feed(Get(kHost + "Expect: 100-continue\r\n"));
  EXPECT_FALSE(bodiless.TakeContinueWish());
}

}  // namespace
}  // namespace orrin
