// What the firmware has announced for the software upgrade tool: one text, which waits here until
// the tool has asked for it. The service doesn't read the text and starts nothing because of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace stewardry {

constexpr std::size_t kUpgradeNoticeSize = 256;  // a text that fills it has no terminator
constexpr std::uint16_t kUpgradeReads = 10;      // then the notice is withdrawn

// Command 0x0A: puts a notice on offer, in the place of an older one, and counts its readers from
// 0. The text ends at its first zero byte, else with the payload; it is cut at kUpgradeNoticeSize
// bytes. The reader thread, and no other.
void SoftwareUpgradeCommand(const std::uint8_t* payload, std::uint32_t length);

// Takes the notice that is on offer into `text`, zero-terminated, and counts that; the tenth time
// is the last. False, with `text` as it was, when none is on offer. One thread at a time.
bool TakeUpgradeNotice(std::span<char, kUpgradeNoticeSize + 1> text);

}  // namespace stewardry
