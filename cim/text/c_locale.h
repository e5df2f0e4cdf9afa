// The "C" locale for the length of a call.
#pragma once

#include <array>
#include <clocale>

#include "cim/text/text.h"

namespace stewardry::cim {

// Sets the process's locale to "C" and, at its end, back to what it was. There is no lock: the
// locale belongs to the whole process, so another thread's locale-dependent work doesn't go with
// it.
//
// The name of a locale whose categories differ lists them all: glibc has twelve, each under a name
// of up to 255 characters. The buffer holds any such name, because a cut one isn't found again.
class CLocale {
 public:
  CLocale() {
    const char* name = std::setlocale(LC_ALL, nullptr);
    (void)Text_CopyNarrow(name_.data(), name != nullptr ? name : "C", name_.size());
    (void)std::setlocale(LC_ALL, "C");  // always there
  }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;
  ~CLocale() { (void)std::setlocale(LC_ALL, name_.data()); }

 private:
  std::array<char, 4096> name_;  // not initialised: only the name's own length is touched
};

}  // namespace stewardry::cim
