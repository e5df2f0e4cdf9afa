// The lab link: the byte stream between a mailbox end (the device stand-in of platform/linux, or
// the bridge of the Windows test driver) and a simulated firmware. The firmware listens, the
// mailbox end connects; one connection serves both handles of one process. Every message is a
// 24-byte little-endian head and then `length` bytes. Tools outside this tree speak it too, so
// numbers here never change.
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
  kPeek = 21,      // body: u32 count; asks for that many bytes of region id from offset word
};

// The longest body either side accepts: one relay read (131072 bytes, the mailbox's frame limit)
// and the four bytes of a request's output size, or a whole region.
constexpr std::uint32_t kMaxBody = 262152;
constexpr std::uint32_t kMaxFrame = 131072;

// Regions of shared memory. They belong to the mailbox end.
constexpr std::uint64_t kKeyboardMouseRegion = 0;
constexpr std::uint64_t kLogRegion = 1;
constexpr std::uint32_t kKeyboardMouseRegionSize = 65536;
constexpr std::uint32_t kLogRegionSize = 262152;

}  // namespace lablink
