#include "platform/windows/runtime/guid_cast.h"
// This needs windows.h.
#include <objbase.h>

namespace platform {

bool StringFromGUID2(const Guid& guid, char16_t (&text)[kGuidTextUnits]) {
  text[0] = 0;
  return ::StringFromGUID2(WindowsGuid(guid), reinterpret_cast<wchar_t*>(text), kGuidTextUnits) > 0;
}

}  // namespace platform
