// The lab link: the byte stream between a mailbox end (the device stand-in of platform/linux, or
// the bridge of the Windows test driver) and a simulated firmware. The firmware listens, the
// mailbox end connects; one connection serves both handles of one process. Every message is a
// 24-byte little-endian head and then `length` bytes. Tools outside this tree use the link too, so
// its numbers never change. The test driver includes this header without a runtime library: it
// needs nothing but the compiler.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lablink {

constexpr std::uint32_t kMagic = 0x4B4E4C4F;  // "OLNK"

struct Head {
  std::uint32_t magic;
  std::uint32_t kind;
  std::uint64_t id;
  std::uint32_t word;
  std::uint32_t length;
};
static_assert(sizeof(Head) == 24 && offsetof(Head, kind) == 4 && offsetof(Head, id) == 8 &&
              offsetof(Head, word) == 16 && offsetof(Head, length) == 20);

enum Kind : std::uint32_t {
  // From the mailbox end.
  kOpen = 1,     // a handle was opened: id its number, word 1 request handle, 0 interrupt handle
  kClose = 2,    // that handle was closed
  kRequest = 3,  // id of the request, word its control code; body: u32 output size, then the input
  kCancel = 4,   // request id was cancelled on the service's side
  kRead = 5,     // a read was armed: id counts them, word its size
  kMemory = 6,   // answer to kPeek: id region, word offset, body the bytes
  // From the firmware.
  kComplete = 17,  // request id has finished: word 0 or a Windows error; body the output bytes
  kFrame = 18,     // body: one frame; completes the oldest armed read, waits while none is armed
  kFailRead = 19,  // the oldest armed read fails with error word
  kPoke = 20,      // store the body in region id at offset word
  kPeek = 21,      // body: u32 count; requests that many bytes of region id from offset word
};

// The longest body either side accepts: one relay read (131072 bytes, the mailbox's frame limit)
// and the four bytes of a request's output size, or a whole region.
constexpr std::uint32_t kMaxBody = 262152;
constexpr std::uint32_t kMaxFrame = 131072;
constexpr std::size_t kMaxMessage = sizeof(Head) + kMaxBody;

// Regions of shared memory. They belong to the mailbox end.
constexpr std::uint64_t kKeyboardMouseRegion = 0;
constexpr std::uint64_t kLogRegion = 1;
constexpr std::uint32_t kKeyboardMouseRegionSize = 65536;
constexpr std::uint32_t kLogRegionSize = 262152;
static_assert(kKeyboardMouseRegionSize <= kMaxBody && kLogRegionSize <= kMaxBody);

// What a mailbox end knows of each region, in the order of their numbers.
struct Region {
  std::uint32_t size;
  std::uint32_t requestCode;  // the control code whose answer carries the region's address
  std::uint32_t releaseCode;  // the control code whose answer ends its use
};
constexpr Region kRegionTable[] = {
    {kKeyboardMouseRegionSize, 0x9C416450, 0x9C416454},
    {kLogRegionSize, 0x9C416448, 0x9C41644C},
};
static_assert(kKeyboardMouseRegion == 0 && kLogRegion == 1);

// Returns the head of a message with a body of `length` bytes. Requires length <= kMaxBody.
constexpr Head MakeHead(std::uint32_t kind, std::uint64_t id, std::uint32_t word,
                        std::size_t length) {
  return {kMagic, kind, id, word, static_cast<std::uint32_t>(length)};
}

// Returns whether a head from outside begins a message: its magic is right, and its body is no
// longer than kMaxBody. Both ends drop a link that fails this check.
constexpr bool IsMessage(const Head& head) {
  return head.magic == kMagic && head.length <= kMaxBody;
}

enum class Parsed { kMessage, kNeedMore, kMalformed };

// Reads the head of the message that begins `size` bytes from outside. Returns kMessage if head and
// body lie within them, and kMalformed as soon as the head is complete and wrong, without waiting
// for its body. *head is set unless the head itself is incomplete.
inline Parsed ParseMessage(const void* bytes, std::size_t size, Head* head) {
  if (size < sizeof *head) return Parsed::kNeedMore;
  __builtin_memcpy(head, bytes, sizeof *head);
  if (!IsMessage(*head)) return Parsed::kMalformed;
  return size - sizeof *head < head->length ? Parsed::kNeedMore : Parsed::kMessage;
}

// Returns whether `size` bytes from outside are exactly one message, and reads its head.
inline bool IsOneMessage(const void* bytes, std::size_t size, Head* head) {
  return ParseMessage(bytes, size, head) == Parsed::kMessage && size - sizeof *head == head->length;
}

}  // namespace lablink
