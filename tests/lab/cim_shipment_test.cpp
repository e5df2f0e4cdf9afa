// The object library's example over a real socket: what arrives, and what a receiver must survive.
#include "lab/cim/shipment.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lab/cim/create_request.h"
#include "lab/cim/description.h"
#include "tests/sock/socket_pair.h"

namespace cim {
namespace {

using namespace stewardry;

// A shipment taken apart, so that a test can spoil a piece of it.
struct Parcel {
  ShipmentHead head{};
  std::vector<BatchPageInfo> list;
  std::vector<std::string> pages;

  // The piece of the message's record at `offset`.
  char* Field(std::size_t offset) {
    for (std::size_t i = 0; i < list.size(); ++i) {
      const std::uint64_t at = head.messageAddress - reinterpret_cast<std::uintptr_t>(list[i].data);
      if (at < list[i].size) return pages[i].data() + at + offset;
    }
    ADD_FAILURE() << "the message is in none of its pages";
    return pages[0].data();
  }
  void Set(std::size_t offset, std::uint64_t value, std::size_t size = 8) {
    std::memcpy(Field(offset), &value, size);
  }
  std::uint64_t Get(std::size_t offset) {
    std::uint64_t value;
    std::memcpy(&value, Field(offset), sizeof value);
    return value;
  }
  std::string Bytes() const {
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
    bytes.append(reinterpret_cast<const char*>(list.data()), list.size() * sizeof list[0]);
    for (const std::string& page : pages) bytes += page;
    return bytes;
  }
};

class CimShipment : public SocketTest {
 protected:
  CimShipment() { EXPECT_EQ(Sock_SetBlocking(pair_.a, true), RESULT_OK); }
  ~CimShipment() override {
    if (request_ != nullptr) Message_Drop(&request_->head);
  }

  static std::string Read(Sock sock, std::uint64_t size) {
    std::string bytes(size, '\0');
    for (std::uint64_t at = 0; at < size;) {
      std::uint64_t count = 0;
      if (Sock_Read(sock, bytes.data() + at, size - at, &count) != RESULT_OK || count == 0) break;
      at += count;
    }
    return bytes;
  }
  Parcel Ship() {
    EXPECT_TRUE(Shipment_Send(pair_.b, &request_->head));
    Parcel parcel;
    std::memcpy(&parcel.head, Read(pair_.a, sizeof parcel.head).data(), sizeof parcel.head);
    parcel.list.resize(parcel.head.pageCount);
    const std::size_t listSize = parcel.list.size() * sizeof parcel.list[0];
    std::memcpy(parcel.list.data(), Read(pair_.a, listSize).data(), listSize);
    for (const BatchPageInfo& page : parcel.list) parcel.pages.push_back(Read(pair_.a, page.size));
    return parcel;
  }
  // What the receiver says of these bytes, which must be a whole shipment or be followed by an end.
  std::string Receive(const std::string& bytes) {
    pair_.Send(bytes);
    return ReceiveNext();
  }
  std::string ReceiveNext() {
    Message* message = nullptr;
    if (const char* fault = Shipment_Receive(pair_.a, &message)) return fault;
    const CreateInstanceRequest* request = AsCreateRequest(message);
    std::string text = request == nullptr ? "another message" : Describe(request->instance);
    Message_Drop(message);
    return text;
  }

  SocketPair pair_;
  CreateInstanceRequest* request_ = MakeCreateRequest(7, u"fan-1");
};

const std::string kFanText =
    "Lab_Fan\n"
    "  DeviceID (STRING, key) = \"fan-1\"\n"
    "  Enabled (BOOLEAN) = true\n"
    "  DesiredSpeed (UINT64) = 1200\n"
    "  Readings (SINT16A) = {21, -3, 40}\n"
    "  Aliases (STRINGA) = {\"front\", \"intake \xE2\x9D\x84\"}\n"
    "  Installed (DATETIME) = 20260228123000.500000+060\n"
    "  Noise (REAL64) = 38.5\n"
    "  Chassis (REFERENCE) = \n"
    "    Lab_Chassis\n"
    "      Serial (UINT32, key) = 4711\n"
    "  Room (INSTANCE) = \n"
    "    Lab_Room\n"
    "      Floor (SINT8) = -1\n"
    "      Name (STRING) = \"K\xC3\xBChlraum\"\n"
    "  LastFault (STRING) = null\n";

TEST_F(CimShipment, WhatArrivesIsNotWhatWasSent) {
  ASSERT_NE(request_, nullptr);
  for (int i = 0; i < 2; ++i) {  // the message stays whole for a second shipment
    ASSERT_TRUE(Shipment_Send(pair_.b, &request_->head));
    EXPECT_EQ(ReceiveNext(), kFanText);
  }
}

TEST_F(CimShipment, ASpoiledShipmentIsTakenOrTakenForAnother) {
  constexpr char kTorn[] = "the message doesn't hold together";
  struct Row {
    const char* what;
    void (*spoil)(Parcel*);
    const char* answer;
  };
  const Row rows[] = {
      {"address outside", [](Parcel* p) { p->head.messageAddress = 0x10; }, kTorn},
      {"address past the last page",
       [](Parcel* p) {
         p->head.messageAddress =
             reinterpret_cast<std::uintptr_t>(p->list[0].data) + p->list[0].size;
       },
       kTorn},
      {"address askew", [](Parcel* p) { p->head.messageAddress += 4; }, kTorn},
      {"record over its page's end",
       [](Parcel* p) {
         p->head.messageAddress =
             reinterpret_cast<std::uintptr_t>(p->list[0].data) + (p->list[0].size & ~7ULL) - 8;
       },
       kTorn},
      {"no such tag", [](Parcel* p) { p->Set(24, 24, 4); }, kTorn},
      {"another kind", [](Parcel* p) { p->Set(24, 22, 4); }, "another message"},
      {"name space outside", [](Parcel* p) { p->Set(136, 0x10); }, kTorn},
      {"name space missing", [](Parcel* p) { p->Set(136, 0); }, kTorn},
      {"name space askew", [](Parcel* p) { p->Set(136, p->Get(136) + 1); }, kTorn},
      {"language outside", [](Parcel* p) { p->Set(96, ~0ULL); }, kTorn},
      {"instance missing", [](Parcel* p) { p->Set(152, 0); }, kTorn},
      {"instance outside", [](Parcel* p) { p->Set(152, 1); }, kTorn},
      {"instance beyond its page", [](Parcel* p) { p->Set(160, 0x7FFFFFF0, 4); }, kTorn},
      {"instance cut", [](Parcel* p) { p->Set(160, p->Get(160) - 4, 4); }, kTorn},
  };
  const Parcel whole = Ship();
  for (const Row& row : rows) {
    Parcel parcel = whole;
    row.spoil(&parcel);
    EXPECT_EQ(Receive(parcel.Bytes()), row.answer) << row.what;
  }
  EXPECT_EQ(Receive(whole.Bytes()), kFanText);
}

// The sizes are looked at before there is memory for them, and the connection is of no use after.
TEST_F(CimShipment, MemoryIsTakenForWhateverAHeadSays) {
  struct Row {
    ShipmentHead head;
    std::vector<BatchPageInfo> list;
    const char* answer;
  };
  const Row rows[] = {
      {{1, 1, 0}, {}, "this is no shipment"},
      {{kShipmentMagic, 0, 0}, {}, "no such number of pages is taken"},
      {{kShipmentMagic, kMaxPages + 1, 0}, {}, "no such number of pages is taken"},
      {{kShipmentMagic, 1, 0}, {{nullptr, kMaxShipment + 1}}, "the pages are too large"},
      {{kShipmentMagic, 2, 0}, {{nullptr, 8}, {nullptr, ~7ULL}}, "the pages are too large"},
  };
  for (const Row& row : rows) {
    Parcel parcel;
    parcel.head = row.head;
    parcel.list = row.list;
    EXPECT_EQ(Receive(parcel.Bytes()), row.answer);
  }
}

TEST_F(CimShipment, AShipmentThatEndsTooSoonIsWaitedForOrTaken) {
  const std::string whole = Ship().Bytes();
  for (std::size_t size = 0; size < whole.size(); size += 1 + size / 16) {
    SocketPair pair;
    EXPECT_EQ(Sock_SetBlocking(pair.a, true), RESULT_OK);
    pair.Send(whole.substr(0, size));
    SocketPair::Close(&pair.b);
    Message* message = nullptr;
    ASSERT_NE(Shipment_Receive(pair.a, &message), nullptr) << size << " bytes";
  }
}

// Whatever a byte of the pages becomes, the shipment is refused or can be described.
TEST_F(CimShipment, AWrongByteInAPageBreaksTheReceiver) {
  const Parcel whole = Ship();
  for (std::size_t page = 0; page < whole.pages.size(); ++page) {
    for (std::size_t at = 0; at < whole.pages[page].size(); ++at) {
      Parcel parcel = whole;
      parcel.pages[page][at] = static_cast<char>(parcel.pages[page][at] ^ 0x81);
      EXPECT_FALSE(Receive(parcel.Bytes()).empty()) << page << ": " << at;
    }
  }
}

}  // namespace
}  // namespace cim
