// Key translation on three layouts. Expected events are texts, see TestKeyboard::Type.
#include "service/kvm/key_translation.h"

#include <gtest/gtest.h>

#include "service/kvm/key_table.h"
#include "tests/service/kvm/test_keyboard.h"

namespace stewardry {
namespace {

constexpr std::int32_t kGrave = 0xFE50, kAcute = 0xFE51, kTilde = 0xFE53, kCedilla = 0xFE5B;

constexpr char kAltCode233[] = "12+ 60+ 60- 62+ 62- 63+ 63- 63+ 63- 12-";  // é on the keypad

struct Case {
  const char* name;
  std::initializer_list<std::int32_t> keysyms;
  std::string events;
};

void ExpectAll(std::initializer_list<Case> cases) {
  for (const Case& each : cases)
    EXPECT_EQ(TestKeyboard::Type(each.keysyms), each.events) << each.name;
}

TEST(KeyTranslation, TableKeyHasItsVirtualKeyAndFlag) {
  const TestKeyboard keyboard(kUsLayout);
  ExpectAll({{"Return", {0xFF0D, -0xFF0D}, "0D+ 0D-"},
             {"KP_Enter", {0xFF8D, -0xFF8D}, "0Dx+ 0Dx-"},
             {"Ctrl+Alt+Del",
              {0xFFE3, 0xFFE9, 0xFFFF, -0xFFFF, -0xFFE9, -0xFFE3},
              "11+ 12+ 2Ex+ 2Ex- 12- 11-"},
             {"right-hand modifiers", {0xFFE2, 0xFFE4, 0xFFEA, 0xFFEC}, "A1+ 11x+ A5x+ 5C+"},
             {"first and last of the runs",
              {0xFFBE, 0xFFD5, 0xFFB0, 0xFFB9, 0xFF51, 0xFF54, 0xFF96},
              "70+ 87+ 60+ 69+ 25x+ 28x+ 25+"},
             {"lock keys and unknown keysyms",
              {0xFFE5, 0xFF7F, 0xFF14, 0x7F, 0x80, 0x9F, 0x1F, 0x100, 0xFE61, 0xFE4F, 0xFF0A,
               0xFFD6, 0xFFFE},
              ""}});
}

TEST(KeyTranslation, CharacterComesWithTheModifiersOfItsLayout) {
  const TestKeyboard keyboard(kUsLayout);
  ExpectAll({{"small letter", {'a', -'a'}, "41+ 41-"},
             {"capital", {'A', -'A'}, "10+ 41+ 10- 41-"},
             {"digit and sign", {'1', '!'}, "31+ 10+ 31+ 10-"}});
  TestKeyboard::capsLock = true;
  ExpectAll({{"caps: small letter", {'a'}, "10+ 41+ 10-"},
             {"caps: capital", {'A'}, "41+"},
             {"caps: digit", {'1'}, "10+ 31+ 10-"},
             {"caps: release", {-'a'}, "41-"}});
  const TestKeyboard german(kGermanLayout);
  ExpectAll({{"umlaut", {0xFC, 0xDC}, "BA+ 10+ BA+ 10-"},
             {"AltGr", {'@', '{'}, "11+ 12+ 51+ 11- 12- 11+ 12+ 37+ 11- 12-"}});
  const TestKeyboard french(kFrenchLayout);
  ExpectAll({{"digit with Shift", {'1', '&'}, "10+ 31+ 10- 31+"}});
}

TEST(KeyTranslation, ModifiersThatTheHostHoldsAreRestored) {
  const TestKeyboard keyboard(kUsLayout);
  TestKeyboard::down = {0x10, 0xA0};  // a left Shift
  ExpectAll({{"capital", {'A'}, "41+"},
             {"small letter", {'a'}, "A0- 41+ A0+"},
             {"space bar", {' '}, "20+"},
             {"release", {-'a'}, "41-"}});
  TestKeyboard::down = {0xA0, 0xA1};
  ExpectAll({{"both", {'a'}, "A0- A1- 41+ A0+ A1+"},
             {"keypad", {0xE9}, std::string("A0- A1- ") + kAltCode233 + " A0+ A1+"}});
}

TEST(KeyTranslation, DeadKeyComposesWithTheNextCharacterOnly) {
  const TestKeyboard keyboard(kUsLayout);
  ExpectAll({{"acute, e", {kAcute, -kAcute, 'e'}, kAltCode233},
             {"acute, b, e", {kAcute, 'b', 'e'}, "42+ 45+"},
             {"ring, a", {0xFE58, 'a'}, "41+"},
             {"the key table keeps it", {kAcute, 0xFF0D, 'e'}, std::string("0D+ ") + kAltCode233},
             {"a release keeps it", {kAcute, -'x', 'e'}, std::string("58- ") + kAltCode233},
             {"the last one counts", {kGrave, kAcute, 'e'}, kAltCode233},
             {"last keysym", {0xFE60, 'e'}, "45+"}});
  for (const auto& [dead, letter, result] :
       {std::tuple<std::uint32_t, char, std::uint32_t>{kTilde, 'N', 0xD1},
        {kGrave, 'u', 0xF9},
        {0xFE52, 'I', 0xCE},
        {0xFE57, 'y', 0xFF},
        {kCedilla, 'a', 'a'},
        {0xFE57, 'Y', 'Y'}})
    EXPECT_EQ(ComposeDeadKey(dead, static_cast<std::uint32_t>(letter)), result) << letter;
  // On a layout that has the letter, it is one key.
  const TestKeyboard french(kFrenchLayout);
  EXPECT_EQ(TestKeyboard::Type({kAcute, 'e'}), "32+");
}

TEST(KeyTranslation, DeadKeyIsTakenOutOfTheLayout) {
  for (const Layout layout : {Layout(kUsLayout), Layout(kGermanLayout), Layout(kFrenchLayout)}) {
    const TestKeyboard keyboard(layout);
    EXPECT_EQ(TestKeyboard::Type({'a'}), "41+");
    EXPECT_EQ(TestKeyboard::deadInLayout, 0);
    EXPECT_EQ(TestKeyboard::notes.find("Found dead key") != std::string::npos,
              layout.data() != kUsLayout);
  }
}

TEST(SpecialKeys, NumberBeyondTheVirtualKeysIsOnlyLogged) {
  const TestKeyboard keyboard(kUsLayout);
  for (const std::int32_t virtualKey : {-1, 256, 0x7FFFFFFF}) {
    TestKeyboard::notes.clear();
    SpecialKey key;
    SpecialKey_Init(&key, virtualKey);
    SpecialKey_Press(TestKeyboard::kHost, &key);
    EXPECT_EQ(TestKeyboard::notes, "Special Key Pressed\nHarmful Keysymbol received\n");
  }
}

}  // namespace
}  // namespace stewardry
