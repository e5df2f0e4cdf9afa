// Maps X keysyms to Windows' virtual keys, for the keys that are not characters. Keysyms are those
// of X11's keysymdef.h, virtual keys those of winuser.h.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace stewardry {

struct KeyMapRow {
  std::uint32_t keysym;
  std::uint8_t virtualKey;
  bool extended;  // KEYEVENTF_EXTENDEDKEY
};

namespace key_table {

// `count` rows with consecutive keysyms and virtual keys.
struct Run {
  std::uint32_t keysym;
  std::uint8_t virtualKey;
  bool extended;
  std::uint8_t count = 1;
};

// Where this is not the plain mapping: left Shift is VK_SHIFT but right Shift VK_RSHIFT, both
// Controls are VK_CONTROL, left Alt is VK_MENU but right Alt VK_RMENU; the Windows keys are not
// extended; the keypad's navigation keys are not extended and the main block's are. The lock keys
// have no row, so a viewer cannot change them.
inline constexpr Run kRuns[] = {
    {0xFF08, 0x08, false},     // BackSpace: VK_BACK
    {0xFF09, 0x09, false},     // Tab: VK_TAB
    {0xFF0B, 0x0C, false},     // Clear: VK_CLEAR
    {0xFF0D, 0x0D, false},     // Return: VK_RETURN
    {0xFF13, 0x13, false},     // Pause: VK_PAUSE
    {0xFF1B, 0x1B, false},     // Escape: VK_ESCAPE
    {0xFF21, 0x19, false},     // Kanji: VK_KANJI
    {0xFF22, 0x1D, false},     // Muhenkan: VK_NONCONVERT
    {0xFF24, 0xF5, false},     // Romaji: VK_DBE_ROMAN
    {0xFF25, 0xF2, false},     // Hiragana: VK_DBE_HIRAGANA
    {0xFF26, 0xF1, false},     // Katakana: VK_DBE_KATAKANA
    {0xFF28, 0xF3, false},     // Zenkaku: VK_DBE_SBCSCHAR
    {0xFF29, 0xF4, false},     // Hankaku: VK_DBE_DBCSCHAR
    {0xFF30, 0xF0, false},     // Eisu_toggle: VK_DBE_ALPHANUMERIC
    {0xFF3E, 0x1C, false},     // Mae_Koho: VK_CONVERT
    {0xFF50, 0x24, true},      // Home: VK_HOME
    {0xFF51, 0x25, true, 4},   // Left, Up, Right, Down: VK_LEFT and on
    {0xFF55, 0x21, true, 2},   // Page_Up, Page_Down: VK_PRIOR, VK_NEXT
    {0xFF57, 0x23, true},      // End: VK_END
    {0xFF60, 0x29, false},     // Select: VK_SELECT
    {0xFF61, 0x2C, false},     // Print: VK_SNAPSHOT
    {0xFF62, 0x2B, false},     // Execute: VK_EXECUTE
    {0xFF63, 0x2D, true},      // Insert: VK_INSERT
    {0xFF67, 0x5D, false},     // Menu: VK_APPS
    {0xFF6A, 0x2F, false},     // Help: VK_HELP
    {0xFF6B, 0x03, true},      // Break: VK_CANCEL
    {0xFF80, 0x20, false},     // KP_Space: VK_SPACE
    {0xFF89, 0x09, false},     // KP_Tab: VK_TAB
    {0xFF8D, 0x0D, true},      // KP_Enter: VK_RETURN
    {0xFF91, 0x70, false, 4},  // KP_F1 to KP_F4: VK_F1 and on
    {0xFF95, 0x24, false},     // KP_Home: VK_HOME
    {0xFF96, 0x25, false, 4},  // KP_Left, KP_Up, KP_Right, KP_Down: VK_LEFT and on
    {0xFF9A, 0x21, false, 2},  // KP_Page_Up, KP_Page_Down: VK_PRIOR, VK_NEXT
    {0xFF9C, 0x23, false},     // KP_End: VK_END
    {0xFF9D, 0x0C, false},     // KP_Begin: VK_CLEAR
    {0xFF9E, 0x2D, false, 2},  // KP_Insert, KP_Delete: VK_INSERT, VK_DELETE
    {0xFFAA, 0x6A, false, 5},  // KP_Multiply, Add, Separator, Subtract, Decimal: VK_MULTIPLY and on
    {0xFFAF, 0x6F, true},      // KP_Divide: VK_DIVIDE
    {0xFFB0, 0x60, false, 10},  // KP_0 to KP_9: VK_NUMPAD0 and on
    {0xFFBE, 0x70, false, 24},  // F1 to F24: VK_F1 and on
    {0xFFE1, 0x10, false},      // Shift_L: VK_SHIFT
    {0xFFE2, 0xA1, false},      // Shift_R: VK_RSHIFT
    {0xFFE3, 0x11, false},      // Control_L: VK_CONTROL
    {0xFFE4, 0x11, true},       // Control_R: VK_CONTROL
    {0xFFE9, 0x12, false},      // Alt_L: VK_MENU
    {0xFFEA, 0xA5, true},       // Alt_R: VK_RMENU
    {0xFFEB, 0x5B, false, 2},   // Super_L, Super_R: VK_LWIN, VK_RWIN
    {0xFFFF, 0x2E, true},       // Delete: VK_DELETE
};

constexpr std::size_t CountRows() {
  std::size_t rows = 0;
  for (const Run& run : kRuns) rows += run.count;
  return rows;
}

constexpr auto Expand() {
  std::array<KeyMapRow, CountRows()> rows{};
  std::size_t at = 0;
  for (const Run& run : kRuns)
    for (std::uint8_t i = 0; i < run.count; ++i)
      rows[at++] = {run.keysym + i, static_cast<std::uint8_t>(run.virtualKey + i), run.extended};
  return rows;
}

}  // namespace key_table

// Sorted by keysym, each once.
inline constexpr auto kKeyMap = key_table::Expand();
static_assert(kKeyMap.size() == 97);
static_assert(std::adjacent_find(kKeyMap.begin(), kKeyMap.end(),
                                 [](const KeyMapRow& a, const KeyMapRow& b) {
                                   return a.keysym >= b.keysym;
                                 }) == kKeyMap.end());

// Returns the row of a keysym, or null if it has none. Any thread.
constexpr const KeyMapRow* FindKeyMapEntry(std::uint32_t keysym) {
  const auto* row =
      std::lower_bound(kKeyMap.begin(), kKeyMap.end(), keysym,
                       [](const KeyMapRow& a, std::uint32_t wanted) { return a.keysym < wanted; });
  return row != kKeyMap.end() && row->keysym == keysym ? row : nullptr;
}

}  // namespace stewardry
