// Modifier keys around a character.
#include "service/kvm/special_key.h"

namespace stewardry {

namespace {

bool IsDown(const KeyboardHost& host, const SpecialKey& key) {
  return key.virtualKey >= 0 && key.virtualKey <= 0xFF &&
         host.isDown(static_cast<std::uint8_t>(key.virtualKey));
}

}  // namespace

void SendVirtualKey(const KeyboardHost& host, std::int64_t virtualKey, std::uint32_t flags) {
  if (virtualKey < 0 || virtualKey > 0xFF) return host.note("Harmful Keysymbol received\n");
  const auto key = static_cast<std::uint8_t>(virtualKey);
  host.send(key, host.scanCode(key), flags);
}

void SpecialKey_Init(SpecialKey* key, std::int32_t virtualKey) {
  *key = {virtualKey, 0, false, false};
}

void SpecialKey_Press(const KeyboardHost& host, SpecialKey* key) {
  if (IsDown(host, *key)) return;
  host.note("Special Key Pressed\n");
  SendVirtualKey(host, key->virtualKey, key->flags);
  key->pressed = true;
}

void SpecialKey_Release(const KeyboardHost& host, SpecialKey* key) {
  if (!IsDown(host, *key)) return;
  host.note("Special Key Released\n");
  SendVirtualKey(host, key->virtualKey, key->flags | kKeyUp);
  key->released = true;
}

void SpecialKey_Restore(const KeyboardHost& host, const SpecialKey& key) {
  if (key.pressed) {
    host.note("Special Key was earlier pressed now performing release\n");
    SendVirtualKey(host, key.virtualKey, key.flags | kKeyUp);
  } else if (key.released) {
    host.note("Special Key was earlier released now performing press\n");
    SendVirtualKey(host, key.virtualKey, key.flags);
  }
}

}  // namespace stewardry
