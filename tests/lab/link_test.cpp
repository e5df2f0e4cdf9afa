#include "lab/firmware/link.h"

#include <gtest/gtest.h>

#include <cstring>

namespace orrin {
namespace {

Bytes MessageBytes(std::uint32_t kind, ByteView body) {
  Bytes bytes(sizeof(lablink::Head) + body.size());
  const lablink::Head head{lablink::kMagic, kind, 7, 9, static_cast<std::uint32_t>(body.size())};
  std::memcpy(bytes.data(), &head, sizeof(head));
  std::copy(body.begin(), body.end(), bytes.begin() + sizeof(head));
  return bytes;
}

void Put(LinkReader* reader, ByteView bytes) {
  const std::span<std::uint8_t> room = reader->Room();
  ASSERT_GE(room.size(), bytes.size());
  std::copy(bytes.begin(), bytes.end(), room.begin());
  reader->Filled(bytes.size());
}

TEST(LinkReader, JoinsMessagesTornAnywhere) {
  const Bytes one = MessageBytes(lablink::kRequest, ViewOf("abcdef"));
  Bytes both = one;
  const Bytes other = MessageBytes(lablink::kOpen, {});
  both.insert(both.end(), other.begin(), other.end());
  for (std::size_t split = 0; split <= both.size(); split++) {
    LinkReader reader;
    LinkMessage message;
    std::vector<std::uint32_t> kinds;
    auto drain = [&] {
      while (reader.Next(&message) == LinkReader::Result::kMessage) {
        kinds.push_back(message.head.kind);
        if (message.head.kind == lablink::kRequest) {
          EXPECT_EQ(TextOf(message.body), "abcdef");
        }
      }
    };
    Put(&reader, ByteView(both).first(split));
    drain();
    Put(&reader, ByteView(both).subspan(split));
    drain();
    EXPECT_EQ(kinds, (std::vector<std::uint32_t>{lablink::kRequest, lablink::kOpen})) << split;
    EXPECT_EQ(reader.Torn(), 0u);
  }
}

TEST(LinkReader, TakesTheLongestBodyAgainAndAgain) {
  const Bytes longest = MessageBytes(lablink::kMemory, Bytes(lablink::kMaxBody, 5));
  LinkReader reader;
  LinkMessage message;
  for (int i = 0; i < 5; i++) {
    Put(&reader, longest);
    ASSERT_EQ(reader.Next(&message), LinkReader::Result::kMessage);
    EXPECT_EQ(message.body.size(), lablink::kMaxBody);
    EXPECT_EQ(reader.Next(&message), LinkReader::Result::kNeedMore);
  }
}

TEST(LinkReader, RefusesABadHeadBeforeItsBody) {
  Bytes wrongMagic = MessageBytes(lablink::kOpen, {});
  wrongMagic[0] ^= 1;
  Bytes tooLong = MessageBytes(lablink::kRequest, {});
  const std::uint32_t length = lablink::kMaxBody + 1;
  std::memcpy(tooLong.data() + 20, &length, sizeof(length));
  for (const Bytes& bytes : {wrongMagic, tooLong}) {
    LinkReader reader;
    LinkMessage message;
    Put(&reader, ByteView(bytes).first(bytes.size() - 1));
    EXPECT_EQ(reader.Next(&message), LinkReader::Result::kNeedMore);
    Put(&reader, ByteView(bytes).last(1));
    EXPECT_EQ(reader.Next(&message), LinkReader::Result::kMalformed);
    EXPECT_EQ(reader.Next(&message), LinkReader::Result::kMalformed);
  }
}

}  // namespace
}  // namespace orrin
