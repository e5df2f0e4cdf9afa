#include "lab/cim/shipment.h"

#include <vector>

namespace cim_ship {

using namespace stewardry;
using namespace stewardry::cim;

namespace {

bool WriteAll(Sock sock, const void* data, std::uint64_t size) {
  const auto* at = static_cast<const std::uint8_t*>(data);
  while (size > 0) {
    std::uint64_t count = 0;
    if (Sock_Write(sock, at, size, &count) != RESULT_OK || count == 0) return false;
    at += count;
    size -= count;
  }
  return true;
}

bool ReadAll(Sock sock, void* data, std::uint64_t size) {
  auto* at = static_cast<std::uint8_t*>(data);
  while (size > 0) {
    std::uint64_t count = 0;
    if (Sock_Read(sock, at, size, &count) != RESULT_OK || count == 0) return false;
    at += count;
    size -= count;
  }
  return true;
}

bool WritePages(Sock sock, const Message* message) {
  std::vector<BatchPageInfo> list(Batch_PageCount(message->batch));
  Batch_PageList(message->batch, list.data());
  const ShipmentHead head{kShipmentMagic, static_cast<std::uint32_t>(list.size()),
                          reinterpret_cast<std::uintptr_t>(message)};
  if (!WriteAll(sock, &head, sizeof head)) return false;
  if (!WriteAll(sock, list.data(), list.size() * sizeof list[0])) return false;
  for (const BatchPageInfo& page : list)
    if (!WriteAll(sock, page.data, page.size)) return false;
  return true;
}

// Returns whether the pages together are within kMaxShipment.
bool SizesFit(const std::vector<BatchPageInfo>& list) {
  std::uint64_t left = kMaxShipment;
  for (const BatchPageInfo& page : list) {
    if (page.size > left) return false;
    left -= page.size;
  }
  return true;
}

bool ReadPages(Sock sock, const Batch* batch, const std::vector<BatchPageInfo>& list) {
  for (std::size_t i = 0; i < list.size(); ++i)
    if (!ReadAll(sock, Batch_PageAt(batch, i), list[i].size)) return false;
  return true;
}

}  // namespace

bool Shipment_Send(Sock sock, Message* message) {
  Message* sending = nullptr;
  if (MessagePackCloneForBinarySending(message, &sending) != RESULT_OK) return false;
  const bool sent = WritePages(sock, sending);
  Message_Drop(sending);
  return sent;
}

const char* Shipment_Receive(Sock sock, Message** message) {
  ShipmentHead head;
  if (!ReadAll(sock, &head, sizeof head)) return "the head is cut";
  if (head.magic != kShipmentMagic) return "the magic number is wrong";
  if (head.pageCount == 0 || head.pageCount > kMaxPages)
    return "the number of pages is out of range";
  std::vector<BatchPageInfo> list(head.pageCount);
  if (!ReadAll(sock, list.data(), list.size() * sizeof list[0])) return "the page list is cut";
  if (!SizesFit(list)) return "the pages are too large";
  Batch* batch = nullptr;
  if (!Batch_FromPageSizes(&batch, list.data(), list.size())) return "out of memory";
  const char* fault = nullptr;
  if (!ReadPages(sock, batch, list)) {
    fault = "a page is cut";
  } else if (Message_Restore(batch, reinterpret_cast<const void*>(head.messageAddress), list.data(),
                             list.size(), false, message) != RESULT_OK) {
    fault = "the message is invalid";
  }
  if (fault != nullptr) Batch_Destroy(batch);
  return fault;
}

}  // namespace cim_ship
