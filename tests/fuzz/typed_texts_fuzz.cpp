// Fuzz target: texts stored in a property of each type, scalar and array, and in octet strings;
// valid date-times are printed and read again. The input: a type, text flags, the number of the
// heap request that fails, then 16-bit units that zeros separate into texts.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cim/instance/typed_instance.h"
#include "cim/memory/heap.h"
#include "cim/value/datetime.h"
#include "tests/cim/instance/rack_schema.h"

namespace {

using namespace stewardry;
using namespace stewardry::cim;

constexpr std::size_t kHead = 3;

// Requires that a printed date-time parses to the same record.
void PassDatetime(const char16_t* text) {
  CimDatetime value, again;
  if (Datetime_Parse(text, &value) != 0) return;
  char16_t schema[kSchemaDatetimeSize], fixed[kFixedDatetimeSize];
  Datetime_ToSchema(&value, schema);
  (void)Datetime_Parse(schema, &again);  // fields too wide for the form are not preserved
  Datetime_ToFixed(&value, fixed);
  if (fixed[0] == 0) return;
  if (Datetime_ParseFixed(fixed, &again) != 0) std::abort();
  if (std::memcmp(&again, &value, sizeof value) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHead) return 0;
  std::vector<char16_t> units((size - kHead) / 2 + 1);
  std::memcpy(units.data(), data + kHead, (units.size() - 1) * 2);
  std::vector<const char16_t*> texts;
  for (std::size_t i = 0; i < units.size(); ++i)
    if (i == 0 || units[i - 1] == 0) texts.push_back(&units[i]);
  for (const char16_t* text : texts) PassDatetime(text);

  Instance *any = nullptr, *disk = nullptr;
  if (Instance_CreateDynamic(&any, u"Any", 0, nullptr) != RESULT_OK) std::abort();
  if (Instance_Create(&disk, &rack_schema::kDisk, nullptr) != RESULT_OK) std::abort();
  if (Instance_AddProperty(any, u"It", nullptr, data[0] % kCimTypes, 0) != RESULT_OK) std::abort();
  for (const auto* name : {u"It", u"Data", u"Made", u"Labels"}) {
    Instance* instance = name[0] == u'I' ? any : disk;
    heap_gate::Arm(data[2]);
    (void)Instance_SetFromText(instance, name, texts[0], data[1]);
    (void)Instance_SetArrayFromTexts(instance, name, texts.data(),
                                     static_cast<std::uint32_t>(texts.size()), data[1]);
    heap_gate::Disarm();
  }
  (void)Instance_Delete(any);
  (void)Instance_Delete(disk);
  return 0;
}
