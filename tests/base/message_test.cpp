// Messages: counted, cloned for sending, shipped and restored, and shipments that nobody should
// send.
#include "base/message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/heap.h"
#include "base/instance/instance.h"
#include "base/instance/packing.h"
#include "base/message_table.h"

namespace stewardry {
namespace {

struct DropMessage {
  void operator()(Message* message) const { Message_Drop(message); }
};
using Owner = std::unique_ptr<Message, DropMessage>;

Instance* Fan() {
  Instance* made = nullptr;
  EXPECT_EQ(Instance_CreateDynamic(&made, u"Fan", FLAG_CLASS, nullptr), RESULT_OK);
  CimValue value = {};
  value.string = u"front";
  EXPECT_EQ(Instance_AddProperty(made, u"Name", &value, CIM_STRING, FLAG_KEY), RESULT_OK);
  return made;
}

// A request of any tag, with every text and every instance of its table.
class MessageTest : public ::testing::Test {
 protected:
  MessageTest() : fan_(Fan()) {}
  ~MessageTest() override { EXPECT_EQ(Instance_Delete(fan_), RESULT_OK); }
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
  Instance* fan_;
};

// The far end: pages at other addresses, with the sender's content.
struct Arrived {
  std::vector<BatchPageInfo> list;
  Batch* batch = nullptr;
  const void* address = nullptr;
  Message* message = nullptr;

  explicit Arrived(const Message* sent) : address(sent) {
    list.resize(Batch_PageCount(sent->batch));
    (void)Batch_PageList(sent->batch, list.data());
    EXPECT_TRUE(Batch_FromPageSizes(&batch, list.data(), list.size()));
    for (std::size_t i = 0; i < list.size(); ++i)
      std::memcpy(Batch_PageAt(batch, i), list[i].data, list[i].size);
  }
  Arrived(const Arrived&) = delete;
  Arrived& operator=(const Arrived&) = delete;
  ~Arrived() { message != nullptr ? Message_Drop(message) : Batch_Destroy(batch); }
  Result Restore(bool skipUnpack = false) {
    return Message_Restore(batch, address, list.data(), list.size(), skipUnpack, &message);
  }
  // The sender's record as it arrived.
  Message* Record() {
    void* at = const_cast<void*>(address);
    EXPECT_TRUE(Batch_TranslatePointer(batch, list.data(), list.size(), &at));
    return static_cast<Message*>(at);
  }
};

void ExpectAlike(const MessageFieldRow* row, const Message* message, bool isUnpacked) {
  for (; row->kind != mft_end; ++row) {
    if (row->kind < mft_clear) {
      EXPECT_EQ(std::u16string(Message_Field<const char16_t*>(message, row->field)), u"text");
    } else if (row->kind == mft_clear) {
      EXPECT_EQ(Message_Field<std::uint64_t>(message, row->field), 0u);
    } else {
      EXPECT_NE(Message_Field<void*>(message, row->packed), nullptr);
      Instance* instance = Message_Field<Instance*>(message, row->field);
      ASSERT_EQ(instance != nullptr, isUnpacked);
      if (!isUnpacked) continue;
      CimValue value;
      std::uint32_t type, flags, index;
      ASSERT_EQ(Instance_ReadProperty(instance, u"Name", &value, &type, &flags, &index), RESULT_OK);
      EXPECT_EQ(std::u16string(value.string), u"front");
    }
  }
}

TEST_F(MessageTest, AMessageOfSomeTagLosesAFieldOnItsWay) {
  for (std::uint32_t index = 1; index < kMessageTags; ++index)
    for (const std::uint32_t request : {0u, kTagIsRequest}) {
      const std::uint32_t tag = index | request;
      const MessageRow* row = FindMessageRow(tag);
      if (!row->needsClone || (request != 0 && row->size < kRequestHeadSize)) continue;
      SCOPED_TRACE(row->name);
      const Owner source = Make(tag);
      source->next = source->prev = source.get();
      Message* clone = nullptr;
      ASSERT_EQ(MessagePackCloneForBinarySending(source.get(), &clone), RESULT_OK);
      const Owner owner(clone);
      ASSERT_NE(clone, source.get());
      clone->next = clone;
      clone->releaseData = clone;
      for (const bool skipUnpack : {false, true}) {
        Arrived arrived(clone);
        ASSERT_EQ(arrived.Restore(skipUnpack), RESULT_OK);
        const Message* made = arrived.message;
        EXPECT_EQ(made->batch, arrived.batch);
        EXPECT_TRUE(made->tag == tag && made->flags == 5 && made->correlationId == 4711);
        EXPECT_TRUE(made->refs == 1 && made->next == nullptr && made->releaseData == nullptr);
        ExpectAlike(row->fields, made, !skipUnpack);
        if (request != 0) ExpectAlike(kRequestFields, made, !skipUnpack);
      }
    }
}

TEST_F(MessageTest, AMessageIsClonedThatNeedNotBeOrFreedTooEarly) {
  struct Released {
    int count = 0;
    static void Count(Message*, void* self) { ++static_cast<Released*>(self)->count; }
  } released;
  Message* message = Message_Create(kNoOpReq, 136, 1, 2);
  message->release = Released::Count;
  message->releaseData = &released;
  Message* same = nullptr;
  EXPECT_EQ(MessagePackCloneForBinarySending(message, &same), RESULT_OK);
  EXPECT_EQ(same, message);
  EXPECT_EQ(message->refs, 2u);
  Message_Drop(same);
  EXPECT_EQ(released.count, 0);
  Message_Drop(message);
  EXPECT_EQ(released.count, 1);
}

TEST_F(MessageTest, ANameIsAnothers) {
  EXPECT_STREQ(Message_TagName(0x1001), "GetInstanceReq");
  EXPECT_STREQ(Message_TagName(kProtocolEventConnect), "ProtocolEventConnect");
  for (const std::uint32_t tag : {0u, 24u, 0xFFFu, 0x1FFFu})
    EXPECT_STREQ(Message_TagName(tag), "UNKNOWN Message");
  EXPECT_TRUE(Message_IsRequest(0x1001));
  EXPECT_FALSE(Message_IsRequest(0xFFF));
}

TEST_F(MessageTest, AMessageIsSentWithoutWhatItMustHave) {
  Message* clone = nullptr;
  for (const std::uint64_t field : {136u, 144u}) {
    const Owner source = Make(kGetInstanceReq);
    Message_Field<void*>(source.get(), field) = nullptr;
    EXPECT_EQ(MessagePackCloneForBinarySending(source.get(), &clone), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(source->refs, 1u);
  }
  const Owner unknown(Message_Create(24, 80, 0, 0)), shortRequest = Make(kPostInstanceMsg);
  EXPECT_EQ(MessagePackCloneForBinarySending(unknown.get(), &clone), RESULT_INVALID_PARAMETER);
  shortRequest->tag |= kTagIsRequest;  // whose request head would lie behind the record
  EXPECT_EQ(MessagePackCloneForBinarySending(shortRequest.get(), &clone), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(clone, nullptr);
}

TEST_F(MessageTest, PackedBytesArePackedAgain) {
  const Owner source = Make(kCreateInstanceReq);
  char bytes[] = "not an instance at all";
  Message_Field<Instance*>(source.get(), 144) = nullptr;
  Message_Field<void*>(source.get(), 152) = bytes;
  Message_Field<std::uint32_t>(source.get(), 160) = sizeof bytes;
  Message* clone = nullptr;
  ASSERT_EQ(MessagePackCloneForBinarySending(source.get(), &clone), RESULT_OK);
  const Owner owner(clone);
  EXPECT_EQ(std::memcmp(Message_Field<void*>(clone, 152), bytes, sizeof bytes), 0);
  Arrived arrived(clone);
  EXPECT_EQ(arrived.Restore(false), RESULT_INVALID_PARAMETER);
  Arrived again(clone);
  EXPECT_EQ(again.Restore(true), RESULT_OK);
}

TEST_F(MessageTest, AnEmptyHeapLeavesHalfAMessage) {
  const Owner source = Make(kCreateInstanceReq | kTagIsRequest);
  for (std::uint64_t at = 1;; ++at) {
    Message* clone = nullptr;
    heap_gate::Arm(at);
    const Result result = MessagePackCloneForBinarySending(source.get(), &clone);
    heap_gate::Disarm();
    if (result == RESULT_OK) {
      EXPECT_GT(at, 3u);
      Message_Drop(clone);
      break;
    }
    EXPECT_EQ(result, RESULT_FAILED);
    EXPECT_EQ(clone, nullptr);
  }
}

class HostileShipment : public MessageTest {
 protected:
  HostileShipment() {
    const Owner source = Make(kCreateInstanceReq | kTagIsRequest);
    Message* clone = nullptr;
    EXPECT_EQ(MessagePackCloneForBinarySending(source.get(), &clone), RESULT_OK);
    sent_.reset(clone);
  }
  template <class Change>
  void ExpectRefused(const char* what, Change change) {
    Arrived arrived(sent_.get());
    change(arrived, arrived.Record());
    EXPECT_EQ(arrived.Restore(), RESULT_INVALID_PARAMETER) << what;
    EXPECT_EQ(arrived.message, nullptr) << what;
  }
  Owner sent_;
};

TEST_F(HostileShipment, AnAddressOutsideEveryPageIsFollowed) {
  const auto outside = [](const Arrived& arrived) {
    return static_cast<std::uint8_t*>(arrived.list[0].data) + 100'000'000;
  };
  const auto endOf = [](const BatchPageInfo& page) {
    return static_cast<std::uint8_t*>(page.data) + page.size;
  };
  ExpectRefused("message", [&](Arrived& a, Message*) { a.address = outside(a); });
  ExpectRefused("message cut by its page",
                [&](Arrived& a, Message*) { a.address = endOf(a.list.back()) - 72; });
  ExpectRefused("message between words", [&](Arrived& a, Message*) {
    a.address = static_cast<const std::uint8_t*>(a.address) + 4;
  });
  ExpectRefused("text", [&](Arrived& a, Message* m) { Message_Field<void*>(m, 136) = outside(a); });
  ExpectRefused("text at an odd address",
                [&](Arrived&, Message* m) { ++Message_Field<std::uint8_t*>(m, 136); });
  ExpectRefused("packed",
                [&](Arrived& a, Message* m) { Message_Field<void*>(m, 152) = outside(a); });
  ExpectRefused("packed bytes that leave their page",
                [&](Arrived&, Message* m) { Message_Field<std::uint32_t>(m, 160) = 0xFFFFFFFF; });
  ExpectRefused("packed bytes around the record", [&](Arrived& a, Message* m) {
    Message_Field<const void*>(m, 152) = a.address;
    Message_Field<std::uint32_t>(m, 160) = 64;
  });
  ExpectRefused("more pages than came", [&](Arrived& a, Message*) { a.list.resize(50); });
}

TEST_F(HostileShipment, ATextWithoutAnEndOrATagWithoutARowIsTaken) {
  ExpectRefused("text up to its page's end", [&](Arrived& a, Message* m) {
    for (std::size_t i = 0; i < a.list.size(); ++i) {
      const auto size = a.list[i].size;
      auto* end = static_cast<std::uint8_t*>(Batch_PageAt(a.batch, i)) + size;
      end[-1] = end[-2] = 1;
      Message_Field<void*>(m, 136) = static_cast<std::uint8_t*>(a.list[i].data) + size - 2;
    }
  });
  ExpectRefused("tag", [](Arrived&, Message* m) { m->tag = 24; });
  ExpectRefused("request bit on a short record",
                [](Arrived&, Message* m) { m->tag = kPostInstanceMsg | kTagIsRequest; });
  ExpectRefused("missing text",
                [](Arrived&, Message* m) { Message_Field<void*>(m, 136) = nullptr; });
  ExpectRefused("missing instance",
                [](Arrived&, Message* m) { Message_Field<void*>(m, 152) = nullptr; });
  ExpectRefused("broken instance",
                [](Arrived&, Message* m) { Message_Field<std::uint32_t>(m, 160) -= 8; });
}

}  // namespace
}  // namespace stewardry
