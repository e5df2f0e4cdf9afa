// Fuzz target: a source instance put together as the input says, with instances nested in it, onto
// a class or a method of a schema. The input: flags, the target, which request of the heap fails,
// then one property after the other.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>

#include "base/heap.h"
#include "base/instance/typed_instance.h"
#include "tests/base/instance/rack_schema.h"

namespace {

using namespace stewardry;

constexpr int kMaxDepth = 6;  // of the source; deeper ones are a unit test

// The names and texts that a source is made of: those that fit the schema, and some that don't.
constexpr const char16_t* kNames[] = {u"Serial", u"Size",  u"Data", u"Made",     u"Labels",
                                      u"Name",   u"Place", u"Disk", u"DiskRefs", u"Disks",
                                      u"Inner",  u"Slot",  u"On",   u"Strange"};
constexpr const char16_t* kTexts[] = {u"", u"1", u"YWJj", u"true", u"P1D", u"0x", u"-1", u"1e9"};
constexpr const char16_t* kClassNames[] = {u"Disk", u"Rack", u"SecondKind", u"Tape"};

// What is left of the input; zeros behind its end.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : next_(data), left_(size) {}
  bool More() const { return left_ != 0; }
  std::uint8_t Byte() {
    if (left_ == 0) return 0;
    --left_;
    return *next_++;
  }
  template <class Item, std::size_t Count>
  Item Pick(Item const (&items)[Count]) {
    return items[Byte() % Count];
  }

 private:
  const std::uint8_t* next_;
  std::size_t left_;
};

Instance* Build(Input* input, int depth);

// Adds one property; the instance's own copy is all that stays of the value.
void AddProperty(Instance* instance, Input* input, int depth) {
  const char16_t* name = input->Pick(kNames);
  const std::uint32_t type = input->Byte() % kCimTypes;
  const std::uint32_t flags = (input->Byte() & 1) != 0 ? FLAG_KEY : 0;
  const std::uint32_t element = CimType_Element(type);
  const char16_t* texts[] = {input->Pick(kTexts), input->Pick(kTexts)};
  Instance* nested[2] = {};
  std::uint8_t plain[72] = {};
  CimValue value{};
  void* data = plain;
  if (element == CIM_STRING) data = texts;
  if (element > CIM_STRING) data = nested;
  if (element > CIM_STRING && depth < kMaxDepth)
    for (Instance*& each : nested) each = Build(input, depth + 1);
  if (CimType_IsArray(type)) {
    value.array = {data, input->Byte() % 3u, 0};
  } else if (element == CIM_STRING) {
    value.string = texts[0];
  } else if (element > CIM_STRING) {
    value.instance = nested[0];
  } else {
    std::generate(std::begin(value.bytes), std::end(value.bytes), [&] { return input->Byte(); });
  }
  (void)Instance_AddProperty(instance, name, &value, type, flags);  // a name may come twice
  for (Instance* each : nested) (void)Instance_Delete(each);        // the empty ones are refused
}

Instance* Build(Input* input, int depth) {
  Instance* instance = nullptr;
  if (Instance_CreateDynamic(&instance, input->Pick(kClassNames), 0, nullptr) != RESULT_OK)
    std::abort();
  const std::size_t most = depth == 0 ? SIZE_MAX : input->Byte() % 4;
  for (std::size_t i = 0; i < most && input->More(); ++i) AddProperty(instance, input, depth);
  return instance;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::uint8_t flags = input.Byte();
  const ClassDef* const targets[] = {&rack_schema::kRack, &rack_schema::kDisk,
                                     MethodDef_AsClass(&rack_schema::kFit)};
  const ClassDef* target = input.Pick(targets);
  const std::uint8_t failAt = input.Byte();
  Instance* source = Build(&input, 0);

  alignas(8) std::uint8_t memory[512];
  Batch batch;
  Batch_Init(&batch, kNoPageLimit);
  Batch* given = (flags & 16) != 0 ? &batch : nullptr;
  heap_gate::Arm(failAt);
  const Result result =
      Instance_ConvertToClass(memory, target, source, (flags & 1) != 0, (flags & 2) != 0,
                              (flags & 4) != 0, given, (flags & 8) != 0 ? kTextOctetString : 0);
  heap_gate::Disarm();
  if (result == RESULT_OK) {
    auto* made = reinterpret_cast<Instance*>(memory);
    Instance* copy = nullptr;  // reads all of it
    if (Instance_Copy(made, &copy, nullptr) != RESULT_OK) std::abort();
    (void)Instance_Delete(copy);
    (void)Instance_Dismantle(made);
  }
  Batch_Destroy(&batch);
  (void)Instance_Delete(source);
  return 0;
}
