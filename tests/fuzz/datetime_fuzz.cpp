// Fuzz target: a text of 16-bit units through the date-time parsers. What parses is printed both
// ways, and a fixed form that is printed must parse to the same record.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/datetime.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stewardry;
  const std::size_t length = size / sizeof(char16_t);
  const auto text = std::make_unique<char16_t[]>(length + 1);  // where a look beyond it is seen
  if (length != 0) std::memcpy(text.get(), data, length * sizeof(char16_t));

  CimDatetime value;
  if (Datetime_Parse(text.get(), &value) != 0) return 0;
  char16_t schema[kSchemaDatetimeSize];
  Datetime_ToSchema(&value, schema);
  CimDatetime again;
  (void)Datetime_Parse(schema, &again);  // fields wider than their places don't come back
  std::uint64_t microseconds = 0;
  if (Datetime_IntervalToMicroseconds(&value, &microseconds) == 0 && value.timestampForm != 0)
    std::abort();

  char16_t fixed[kFixedDatetimeSize];
  Datetime_ToFixed(&value, fixed);
  if (fixed[0] == 0) return 0;
  if (Datetime_ParseFixed(fixed, &again) != 0) std::abort();
  if (std::memcmp(&again, &value, sizeof value) != 0) std::abort();
  return 0;
}
