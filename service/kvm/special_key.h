// A modifier key that is pressed or released around a character and put back afterwards.
#pragma once

#include <cstdint>

#include "service/kvm/key_translation.h"

namespace stewardry {

struct SpecialKey {
  std::int32_t virtualKey;
  std::uint32_t flags;  // added to each event
  bool pressed;         // this record has pressed the key
  bool released;        // this record has released the key
};

// A record that has done nothing yet.
void SpecialKey_Init(SpecialKey* key, std::int32_t virtualKey);
// Presses the key if it is up; a key already down isn't touched, and so not released later.
void SpecialKey_Press(const KeyboardHost& host, SpecialKey* key);
// Releases the key if it is down.
void SpecialKey_Release(const KeyboardHost& host, SpecialKey* key);
// Undoes what the record has done, if anything.
void SpecialKey_Restore(const KeyboardHost& host, const SpecialKey& key);

// Sends one event of a key with its scan code. A number that is no virtual key (0 to 255) isn't
// sent, and said so.
void SendVirtualKey(const KeyboardHost& host, std::int64_t virtualKey, std::uint32_t flags);

}  // namespace stewardry
