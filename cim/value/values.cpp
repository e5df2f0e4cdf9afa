#include "cim/value/values.h"

namespace stewardry::cim {

const std::array<const char*, kCimTypes> kCimTypeNames = {
    "BOOLEAN",  "UINT8",   "SINT8",   "UINT16",  "SINT16",    "UINT32",  "SINT32",     "UINT64",
    "SINT64",   "REAL32",  "REAL64",  "CHAR16",  "DATETIME",  "STRING",  "REFERENCE",  "INSTANCE",
    "BOOLEANA", "UINT8A",  "SINT8A",  "UINT16A", "SINT16A",   "UINT32A", "SINT32A",    "UINT64A",
    "SINT64A",  "REAL32A", "REAL64A", "CHAR16A", "DATETIMEA", "STRINGA", "REFERENCEA", "INSTANCEA"};

void CimValue_FromRaw(std::uint32_t type, const void* raw, CimValue* value) {
  assert(value != nullptr);
  std::memset(value, 0, sizeof *value);
  if (raw != nullptr && type < kCimTypes) std::memcpy(value, raw, kElementSizes[type]);
}

bool Datetime_Equal(const CimDatetime* a, const CimDatetime* b) {
  assert(a != nullptr && b != nullptr);
  if (a->timestampForm != b->timestampForm) return false;
  return a->timestampForm != 0
             ? std::memcmp(&a->timestamp, &b->timestamp, sizeof a->timestamp) == 0
             : std::memcmp(&a->interval, &b->interval, offsetof(CimDatetime::Interval, zero)) == 0;
}

}  // namespace stewardry::cim
