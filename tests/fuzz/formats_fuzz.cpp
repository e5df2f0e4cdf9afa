// Fuzz target: any format of 8 and of 16 bits, translated and then printed without an argument that
// a conversion could miss, and any text scanned. The translation must keep a format's length and
// change nothing but the letters behind a %.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/format.h"
#include "base/print.h"
#include "base/scan.h"

namespace {

using namespace stewardry;

// Whether `to` is what the letters make of `from`.
template <class Unit>
bool IsTranslated(const std::basic_string<Unit>& from, const Unit* to) {
  constexpr bool kIsNarrow = sizeof(Unit) == 1;
  for (std::size_t i = 0; i < from.size(); ++i) {
    const bool isLetter = i > 0 && from[i - 1] == '%';
    Unit expected = from[i];
    if (isLetter && from[i] == 'T') expected = kIsNarrow ? 'S' : 's';
    if (isLetter && !kIsNarrow && from[i] == 's') expected = 'S';
    if (isLetter && !kIsNarrow && from[i] == 'S') expected = 's';
    if (to[i] != expected) return false;
  }
  return to[from.size()] == 0;
}

template <class Unit>
void Translate(const std::basic_string<Unit>& format) {
  const TranslatedFormat<Unit> translated(format.c_str());
  if (translated.Text() == nullptr) return;
  if (!IsTranslated(format, translated.Text())) std::abort();
}

// Without a % but a doubled one, no conversion asks for an argument that isn't there.
template <class Unit>
std::basic_string<Unit> WithoutConversions(std::basic_string<Unit> format) {
  for (std::size_t i = 0; i < format.size(); ++i)
    if (format[i] == '%') format.insert(++i, 1, '%');
  return format;
}

void Scan(const std::string& narrow, const std::u16string& wide) {
  // Room for as much text as there is; numbers of every kind.
  std::string word(narrow.size() + 1, '\0');
  std::u16string wideWord(wide.size() + 1, u'\0');
  int integer;
  unsigned long long whole;
  double real;
  (void)Scan_FromTextC(narrow.c_str(), "%i%llx %lf,%s", &integer, &whole, &real, word.data());
  (void)ScanW_FromTextC(wide.c_str(), u"%d%[^a-f]%lg %T", &integer, wideWord.data(), &real,
                        wideWord.data());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string narrow(reinterpret_cast<const char*>(data), size);
  narrow.resize(std::strlen(narrow.c_str()));
  std::u16string wide(size / 2, u'\0');
  if (size > 1) std::memcpy(wide.data(), data, wide.size() * 2);
  wide.resize(std::char_traits<char16_t>::length(wide.c_str()));
  Translate(narrow);
  Translate(wide);
  char small[64];
  char16_t wideSmall[64];
  (void)Print_ToBuffer(small, sizeof small, WithoutConversions(narrow).c_str());
  (void)PrintW_ToBuffer(wideSmall, 64, WithoutConversions(wide).c_str());
  Scan(narrow, wide);
  return 0;
}
