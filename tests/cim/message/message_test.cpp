// Messages: their sending form, restored messages, and malformed shipments.
#include "cim/message/message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cim/message/message_table.h"
#include "tests/cim/instance/owned_instance.h"

namespace stewardry::cim {
namespace {

struct DropMessage {
  void operator()(Message* message) const { Message_Drop(message); }
};
using Owner = std::unique_ptr<Message, DropMessage>;

class MessageTest : public ::testing::Test {
 protected:
  // Makes a message with every text and every instance of its table.
  Owner Make(std::uint32_t tag) {
    Owner message(Message_Create(tag, Message_SizeOf(tag), 4711, 5));
    if (Message_IsRequest(tag)) Fill(message.get(), kRequestFields);
    Fill(message.get(), FindMessageRow(tag)->fields);
    return message;
  }
  void Fill(Message* message, const MessageFieldRow* row) {
    for (; row->kind != mft_end; ++row)
      if (row->kind >= mft_instance)
        Message_Field<Instance*>(message, row->field) = fan_;
      else if (row->kind != mft_clear || row->field >= sizeof(Message))
        Message_Field<const char16_t*>(message, row->field) = u"text";
  }
  static Owner SendingForm(const Message* source) {
    Message* clone = nullptr;
    EXPECT_EQ(MessagePackCloneForBinarySending(source, &clone), RESULT_OK);
    return Owner(clone);
  }
  const Owned fan_{u"Fan", {{u"Name", CIM_STRING, Text(u"front"), FLAG_KEY}}};
};

std::uint64_t AddressOf(const void* place) { return reinterpret_cast<std::uintptr_t>(place); }
// Returns a field of 64 bits, which may hold a pointer.
std::uint64_t& Word(Message* message, std::uint64_t offset) {
  return Message_Field<std::uint64_t>(message, offset);
}

// The receiver: pages at other addresses with the sender's content.
struct Arrived {
  std::vector<BatchPageInfo> list;
  Batch* batch = nullptr;
  std::uint64_t address;  // of the message, at the sender
  Message* message = nullptr;

  explicit Arrived(const Message* sent)
      : list(Batch_PageCount(sent->batch)), address(AddressOf(sent)) {
    (void)Batch_PageList(sent->batch, list.data());
    EXPECT_TRUE(Batch_FromPageSizes(&batch, list.data(), list.size()));
    for (std::size_t i = 0; i < list.size(); ++i)
      std::memcpy(Batch_PageAt(batch, i), list[i].data, list[i].size);
  }
  Arrived(const Arrived&) = delete;
  Arrived& operator=(const Arrived&) = delete;
  ~Arrived() { message != nullptr ? Message_Drop(message) : Batch_Destroy(batch); }
  Result Restore(bool skipUnpack) {
    return Message_Restore(batch, reinterpret_cast<const void*>(address), list.data(), list.size(),
                           skipUnpack, &message);
  }
};

void ExpectFilled(const Message* message, const MessageFieldRow* row) {
  for (; row->kind != mft_end; ++row) {
    if (row->kind < mft_clear) {
      EXPECT_EQ(std::u16string(Message_Field<const char16_t*>(message, row->field)), u"text");
    } else if (row->kind == mft_clear) {
      EXPECT_EQ(Message_Field<std::uint64_t>(message, row->field), 0u);
    } else {
      const Instance* fan = Message_Field<Instance*>(message, row->field);
      EXPECT_EQ(std::u16string(Read(fan, u"Name", CIM_STRING).string), u"front");
    }
  }
}

// Sends every message to a relay, which keeps its instances packed, and from there to a target.
TEST_F(MessageTest, MessagesOfEveryTagArriveWithTheirFields) {
  for (std::uint32_t index = 1; index < kMessageTags; ++index)
    for (const std::uint32_t tag : {index, index | kTagIsRequest}) {
      const MessageRow* row = FindMessageRow(tag);
      if (!row->needsClone || (Message_IsRequest(tag) && row->size < kRequestHeadSize)) continue;
      SCOPED_TRACE(row->name);
      const Owner source = Make(tag), sent = SendingForm(source.get());
      sent->next = sent->prev = sent.get();
      sent->releaseData = sent.get();
      Arrived relay(sent.get());
      ASSERT_EQ(relay.Restore(true), RESULT_OK);
      const Owner relayed = SendingForm(relay.message);
      Arrived target(relayed.get());
      ASSERT_EQ(target.Restore(false), RESULT_OK);
      const Message* made = target.message;
      EXPECT_TRUE(made->tag == tag && made->flags == 5 && made->correlationId == 4711);
      EXPECT_TRUE(made->refs == 1 && relay.message->next == nullptr);
      EXPECT_EQ(relay.message->releaseData, nullptr);
      ExpectFilled(target.message, row->fields);
      if (Message_IsRequest(tag)) ExpectFilled(target.message, kRequestFields);
    }
}

TEST_F(MessageTest, IncompleteMessagesAreNotCloned) {
  const Owner sources[] = {Make(kGetInstanceReq), Make(kGetInstanceReq), Make(kPostInstanceMsg)};
  Message_Field<void*>(sources[0].get(), 136) = nullptr;
  Message_Field<void*>(sources[1].get(), 144) = nullptr;
  sources[2]->tag |= kTagIsRequest;  // the request head would lie after the record
  for (const Owner& source : sources) {
    Message* clone = nullptr;
    EXPECT_EQ(MessagePackCloneForBinarySending(source.get(), &clone), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(clone, nullptr);
  }
}

constexpr std::uint64_t kFar = 100'000'000;

struct HostileChange {
  const char* what;
  void (*change)(Arrived* arrived, Message* record);
};
constexpr HostileChange kHostileChanges[] = {
    {"message outside", [](Arrived* a, Message*) { a->address += kFar; }},
    {"message between words", [](Arrived* a, Message*) { a->address += 4; }},
    {"message cut",
     [](Arrived* a, Message*) { a->address = AddressOf(a->list[0].data) + a->list[0].size - 72; }},
    {"more pages than received", [](Arrived* a, Message*) { a->list.resize(50); }},
    {"unknown tag", [](Arrived*, Message* m) { m->tag = 24; }},
    {"no request head", [](Arrived*, Message* m) { m->tag = kPostInstanceMsg | kTagIsRequest; }},
    {"text missing", [](Arrived*, Message* m) { Word(m, 136) = 0; }},
    {"text outside", [](Arrived*, Message* m) { Word(m, 136) += kFar; }},
    {"text at an odd address", [](Arrived*, Message* m) { ++Word(m, 136); }},
    {"text without terminator in its page",
     [](Arrived* a, Message* m) {
       const std::uint64_t last = a->list[0].size - 2;
       std::memset(static_cast<char*>(Batch_PageAt(a->batch, 0)) + last, 1, 2);
       Word(m, 136) = AddressOf(a->list[0].data) + last;
     }},
    {"instance missing", [](Arrived*, Message* m) { Word(m, 152) = 0; }},
    {"instance outside", [](Arrived*, Message* m) { Word(m, 152) += kFar; }},
    {"instance beyond its page", [](Arrived*, Message* m) { Word(m, 160) |= 0xFFFFFFFF; }},
    {"instance over the record", [](Arrived* a, Message* m) { Word(m, 152) = a->address - 8; }},
    {"instance in the record", [](Arrived* a, Message* m) { Word(m, 152) = a->address + 72; }},
};

TEST_F(MessageTest, HostileShipmentsAreRefused) {
  const Owner source = Make(kCreateInstanceReq | kTagIsRequest), sent = SendingForm(source.get());
  for (const HostileChange& row : kHostileChanges)
    for (const bool skipUnpack : {false, true}) {
      Arrived arrived(sent.get());
      void* record = sent.get();
      EXPECT_TRUE(
          Batch_TranslatePointer(arrived.batch, arrived.list.data(), arrived.list.size(), &record));
      row.change(&arrived, static_cast<Message*>(record));
      EXPECT_EQ(arrived.Restore(skipUnpack), RESULT_INVALID_PARAMETER) << row.what;
      EXPECT_EQ(arrived.message, nullptr);
    }
}

}  // namespace
}  // namespace stewardry::cim
