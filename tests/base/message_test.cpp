// Messages: their sending form, what arrives, and shipments that must be refused.
#include "base/message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/heap.h"
#include "base/instance/instance.h"
#include "base/message_table.h"

namespace stewardry {
namespace {

struct DropMessage {
  void operator()(Message* message) const { Message_Drop(message); }
};
using Owner = std::unique_ptr<Message, DropMessage>;

class MessageTest : public ::testing::Test {
 protected:
  MessageTest() {
    EXPECT_EQ(Instance_CreateDynamic(&fan_, u"Fan", FLAG_CLASS, nullptr), RESULT_OK);
    CimValue value = {};
    value.string = u"front";
    EXPECT_EQ(Instance_AddProperty(fan_, u"Name", &value, CIM_STRING, FLAG_KEY), RESULT_OK);
  }
  ~MessageTest() override { EXPECT_EQ(Instance_Delete(fan_), RESULT_OK); }
  // A message with every text and every instance of its table.
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
  Instance* fan_ = nullptr;
};

// The far end: pages at other addresses, with the sender's content.
struct Arrived {
  std::vector<BatchPageInfo> list;
  Batch* batch = nullptr;
  const void* address = nullptr;
  Message* message = nullptr;

  explicit Arrived(const Message* sent) : list(Batch_PageCount(sent->batch)), address(sent) {
    (void)Batch_PageList(sent->batch, list.data());
    EXPECT_TRUE(Batch_FromPageSizes(&batch, list.data(), list.size()));
    for (std::size_t i = 0; i < list.size(); ++i)
      std::memcpy(Batch_PageAt(batch, i), list[i].data, list[i].size);
  }
  Arrived(const Arrived&) = delete;
  Arrived& operator=(const Arrived&) = delete;
  ~Arrived() { message != nullptr ? Message_Drop(message) : Batch_Destroy(batch); }
  Result Restore(bool skipUnpack) {
    return Message_Restore(batch, address, list.data(), list.size(), skipUnpack, &message);
  }
};

void ExpectFilled(const Message* message, const MessageFieldRow* row) {
  for (; row->kind != mft_end; ++row) {
    if (row->kind < mft_clear) {
      EXPECT_EQ(std::u16string(Message_Field<const char16_t*>(message, row->field)), u"text");
    } else if (row->kind == mft_clear) {
      EXPECT_EQ(Message_Field<std::uint64_t>(message, row->field), 0u);
    } else {
      CimValue value;
      std::uint32_t type, flags, index;
      ASSERT_EQ(Instance_ReadProperty(Message_Field<Instance*>(message, row->field), u"Name",
                                      &value, &type, &flags, &index),
                RESULT_OK);
      EXPECT_EQ(std::u16string(value.string), u"front");
    }
  }
}

// Every message is sent to a relay, which keeps its instances packed, and from there to its target.
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
      for (const Arrived* arrived : {&relay, &target}) {
        const Message* made = arrived->message;
        EXPECT_EQ(made->batch, arrived->batch);
        EXPECT_TRUE(made->tag == tag && made->flags == 5 && made->correlationId == 4711);
        EXPECT_TRUE(made->refs == 1 && made->next == nullptr && made->releaseData == nullptr);
      }
      ExpectFilled(target.message, row->fields);
      if (Message_IsRequest(tag)) ExpectFilled(target.message, kRequestFields);
    }
}

TEST_F(MessageTest, TagsHaveNames) {
  EXPECT_STREQ(Message_TagName(0x1001), "GetInstanceReq");
  EXPECT_STREQ(Message_TagName(kProtocolEventConnect), "ProtocolEventConnect");
  for (const std::uint32_t tag : {0u, 24u, 0xFFFu, 0x1FFFu})
    EXPECT_STREQ(Message_TagName(tag), "UNKNOWN Message");
  EXPECT_FALSE(Message_IsRequest(0xFFF));
}

TEST_F(MessageTest, IncompleteMessagesAreNotCloned) {
  const auto result = [](const Owner& source) {
    Message* clone = nullptr;
    const Result cloned = MessagePackCloneForBinarySending(source.get(), &clone);
    EXPECT_EQ(clone, nullptr);
    return cloned;
  };
  for (const std::uint64_t missing : {136u, 144u}) {
    const Owner source = Make(kGetInstanceReq);
    Message_Field<void*>(source.get(), missing) = nullptr;
    EXPECT_EQ(result(source), RESULT_INVALID_PARAMETER);
  }
  EXPECT_EQ(result(Owner(Message_Create(24, 80, 0, 0))), RESULT_INVALID_PARAMETER);
  const Owner shortRequest = Make(kPostInstanceMsg);
  shortRequest->tag |= kTagIsRequest;  // whose request head would lie behind the record
  EXPECT_EQ(result(shortRequest), RESULT_INVALID_PARAMETER);

  const Owner source = Make(kCreateInstanceReq | kTagIsRequest);
  for (const std::uint64_t failAt : {1u, 2u, 3u}) {
    heap_gate::Arm(failAt);
    EXPECT_EQ(result(source), RESULT_FAILED) << failAt;
    heap_gate::Disarm();
  }
}

constexpr std::uint64_t kFar = 100'000'000;

struct HostileChange {
  const char* what;
  void (*change)(Arrived* arrived, Message* record);
};

std::uint8_t* EndOf(const BatchPageInfo& page) {
  return static_cast<std::uint8_t*>(page.data) + page.size;
}
void EndTextWithItsPage(Arrived* a, Message* m) {
  std::memset(EndOf({Batch_PageAt(a->batch, 0), a->list[0].size}) - 2, 1, 2);
  Message_Field<void*>(m, 136) = EndOf(a->list[0]) - 2;
}

const HostileChange kHostileChanges[] = {
    {"message outside", [](Arrived* a, Message*) { a->address = EndOf(a->list[0]) + kFar; }},
    {"message cut", [](Arrived* a, Message*) { a->address = EndOf(a->list.back()) - 72; }},
    {"message at an odd address",
     [](Arrived* a, Message*) { a->address = static_cast<const std::uint8_t*>(a->address) + 4; }},
    {"more pages than came", [](Arrived* a, Message*) { a->list.resize(50); }},
    {"tag", [](Arrived*, Message* m) { m->tag = 24; }},
    {"request without a request head",
     [](Arrived*, Message* m) { m->tag = kPostInstanceMsg | kTagIsRequest; }},
    {"text missing", [](Arrived*, Message* m) { Message_Field<void*>(m, 136) = nullptr; }},
    {"text outside", [](Arrived*, Message* m) { Message_Field<std::uint8_t*>(m, 136) += kFar; }},
    {"text at an odd address", [](Arrived*, Message* m) { ++Message_Field<char*>(m, 136); }},
    {"text up to its page's end", EndTextWithItsPage},
    {"instance missing", [](Arrived*, Message* m) { Message_Field<void*>(m, 152) = nullptr; }},
    {"instance outside", [](Arrived*, Message* m) { Message_Field<char*>(m, 152) += kFar; }},
    {"instance beyond its page",
     [](Arrived*, Message* m) { Message_Field<std::uint32_t>(m, 160) = 0xFFFFFFFF; }},
    {"instance over the record",
     [](Arrived* a, Message* m) { Message_Field<const void*>(m, 152) = a->address; }},
    {"instance in the record",
     [](Arrived* a, Message* m) {
       Message_Field<const char*>(m, 152) = static_cast<const char*>(a->address) + 72;
       Message_Field<std::uint32_t>(m, 160) = 8;
     }},
};

TEST_F(MessageTest, HostileShipmentsAreRefused) {
  const Owner source = Make(kCreateInstanceReq | kTagIsRequest), sent = SendingForm(source.get());
  const auto restore = [&](void (*change)(Arrived*, Message*), bool skipUnpack) {
    Arrived arrived(sent.get());
    void* record = sent.get();
    EXPECT_TRUE(
        Batch_TranslatePointer(arrived.batch, arrived.list.data(), arrived.list.size(), &record));
    change(&arrived, static_cast<Message*>(record));
    const Result result = arrived.Restore(skipUnpack);
    EXPECT_EQ(arrived.message != nullptr, result == RESULT_OK);
    return result;
  };
  for (const HostileChange& each : kHostileChanges)
    for (const bool skipUnpack : {false, true})
      EXPECT_EQ(restore(each.change, skipUnpack), RESULT_INVALID_PARAMETER) << each.what;
  // Whether the bytes are an instance is known to whoever unpacks them only.
  const auto cut = [](Arrived*, Message* m) { Message_Field<std::uint32_t>(m, 160) -= 8; };
  EXPECT_EQ(restore(cut, false), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(restore(cut, true), RESULT_OK);
}

}  // namespace
}  // namespace stewardry
