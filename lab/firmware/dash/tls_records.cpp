#include "lab/firmware/dash/tls_records.h"

#include <algorithm>
#include <cassert>
#include <utility>
#include <vector>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

struct TypeWords {
  std::uint8_t type;
  const char* words;
};

constexpr std::uint8_t kHandshake = 22;
constexpr TypeWords kContentTypes[] = {{20, "change_cipher_spec"},
                                       {21, "alert"},
                                       {kHandshake, "handshake"},
                                       {23, "application data"},
                                       {24, "heartbeat"}};
constexpr TypeWords kHandshakeTypes[] = {{1, "ClientHello"},        {2, "ServerHello"},
                                         {4, "NewSessionTicket"},   {11, "Certificate"},
                                         {12, "ServerKeyExchange"}, {14, "ServerHelloDone"},
                                         {16, "ClientKeyExchange"}};

template <std::size_t N>
const char* WordsFor(const TypeWords (&table)[N], std::uint8_t type) {
  for (const TypeWords& row : table) {
    if (row.type == type) return row.words;
  }
  return nullptr;
}

// Returns "TLS handshake, 2 TLS application data", for example.
std::string Joined(const std::vector<std::pair<std::string, int>>& counts) {
  std::string text;
  for (const auto& [words, count] : counts) {
    if (!text.empty()) text += ", ";
    text += count > 1 ? Format("%d TLS ", count) + words : "TLS " + words;
  }
  return text;
}

}  // namespace

std::string TlsRecordWatch::Describe(ByteView bytes) {
  std::vector<std::pair<std::string, int>> counts;
  while (!bytes.empty() && !broken_) {
    const std::size_t skipped = std::min(bodyLeft_, bytes.size());
    bodyLeft_ -= skipped;
    bytes = bytes.subspan(skipped);
    while (headFilled_ < kHeadSize && !bytes.empty() && bodyLeft_ == 0) {
      head_[headFilled_++] = bytes.front();
      bytes = bytes.subspan(1);
    }
    if (headFilled_ < kHeadSize) continue;
    const std::string words = ReadHead(bytes);
    if (!counts.empty() && counts.back().first == words) {
      ++counts.back().second;
    } else if (!broken_) {
      counts.emplace_back(words, 1);
    }
  }
  if (broken_) return counts.empty() ? "not TLS" : Joined(counts) + ", then not TLS";
  return counts.empty() ? "TLS record continued" : Joined(counts);
}

std::string TlsRecordWatch::ReadHead(ByteView rest) {
  assert(headFilled_ == kHeadSize);
  const char* type = WordsFor(kContentTypes, head_[0]);
  bodyLeft_ = std::size_t{head_[3]} * 256 + head_[4];
  headFilled_ = 0;
  broken_ = type == nullptr || head_[1] != 3;
  if (broken_) return {};
  std::string words = type;
  // An encrypted handshake record begins with any byte: the name is a guess.
  const char* message = head_[0] == kHandshake && !rest.empty() && bodyLeft_ > 0
                            ? WordsFor(kHandshakeTypes, rest[0])
                            : nullptr;
  if (message != nullptr) words += Format(" (%s)", message);
  return words;
}

}  // namespace orrin
