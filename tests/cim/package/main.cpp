// Packs an instance and reads it back, with the installed headers and libraries alone.
#include "cim/instance/instance.h"
#include "cim/packing/packing.h"
#include "cim/text/text.h"

using namespace stewardry::cim;

int main() {
  Batch* batch = Batch_Create(kNoPageLimit);
  Instance *fan = nullptr, *copy = nullptr;
  CimValue value{};
  value.string = u"F1";
  void* bytes = nullptr;
  std::uint32_t size = 0;
  const bool isSame =
      batch != nullptr &&
      Instance_CreateDynamic(&fan, u"Fan", FLAG_CLASS, batch) == stewardry::RESULT_OK &&
      Instance_AddProperty(fan, u"ID", &value, CIM_STRING, FLAG_KEY) == stewardry::RESULT_OK &&
      Instance_PackToBatch(fan, nullptr, nullptr, batch, &bytes, &size) == stewardry::RESULT_OK &&
      Instance_UnpackBytes(batch, bytes, size, &copy) &&
      Instance_ReadProperty(copy, u"id", &value, nullptr, nullptr, nullptr) ==
          stewardry::RESULT_OK &&
      Text_Compare(value.string, u"F1") == 0;
  if (batch != nullptr) Batch_Destroy(batch);
  return isSame ? 0 : 1;
}
