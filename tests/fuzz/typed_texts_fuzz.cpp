// Fuzz target: texts into a property of each type, scalar and array, and into octet strings. The
// input: a type, text flags, which request of the heap fails, then 16-bit units that zeros part
// into texts.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/heap.h"
#include "base/instance/typed_instance.h"
#include "tests/base/instance/rack_schema.h"

namespace {

constexpr std::size_t kHead = 3;

// The units with a terminator, and where each text begins.
struct Texts {
  explicit Texts(const std::uint8_t* data, std::size_t size) : units(size / 2 + 1) {
    if (size >= 2) std::memcpy(units.data(), data, size / 2 * 2);
    for (std::size_t i = 0; i < units.size(); ++i) {
      if (i == 0 || units[i - 1] == 0) starts.push_back(&units[i]);
    }
  }
  std::vector<char16_t> units;
  std::vector<const char16_t*> starts;
};

void Set(stewardry::Instance* instance, const char16_t* name, const Texts& texts,
         std::uint32_t flags, std::uint64_t failAt) {
  using namespace stewardry;
  heap_gate::Arm(failAt);
  (void)Instance_SetFromText(instance, name, texts.starts[0], flags);
  (void)Instance_SetArrayFromTexts(instance, name, texts.starts.data(),
                                   static_cast<std::uint32_t>(texts.starts.size()), flags);
  heap_gate::Disarm();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stewardry;
  if (size < kHead) return 0;
  const Texts texts(data + kHead, size - kHead);
  Instance* dynamic = nullptr;
  Instance* disk = nullptr;
  if (Instance_CreateDynamic(&dynamic, u"Any", 0, nullptr) != RESULT_OK) std::abort();
  if (Instance_Create(&disk, &rack_schema::kDisk, nullptr) != RESULT_OK) std::abort();
  if (Instance_AddProperty(dynamic, u"It", nullptr, data[0] % kCimTypes, 0) != RESULT_OK)
    std::abort();
  Set(dynamic, u"It", texts, data[1], data[2]);
  for (const auto* name : {u"Data", u"Made", u"Labels"}) Set(disk, name, texts, data[1], data[2]);
  (void)Instance_Delete(dynamic);
  (void)Instance_Delete(disk);
  return 0;
}
