// Fuzz target: untrusted bytes as a packed instance. An instance that unpacks is copied, converted
// to the classes of a schema, packed and unpacked again: both packed forms must be equal.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cim/instance/typed_instance.h"
#include "cim/packing/packing.h"
#include "tests/cim/instance/rack_schema.h"

namespace stewardry::cim {
namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

// Bytes in a block of their exact size: the sanitizer reports a read beyond them.
struct OwnBytes : std::vector<std::uint8_t> {
  using vector::vector;
  PackBuf Reader() { return {data(), static_cast<std::uint32_t>(size()), 0, 0}; }
};

// Converts with each combination of the three flags, and copies the result, which reads all of it.
void Convert(const Instance* source, const ClassDef* target) {
  for (const unsigned flags : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
    alignas(8) std::uint8_t memory[512];
    if (Instance_ConvertToClass(memory, target, source, (flags & 1) != 0, (flags & 2) != 0,
                                (flags & 4) != 0, nullptr, kTextOctetString) != RESULT_OK)
      continue;
    auto* made = reinterpret_cast<Instance*>(memory);
    Instance* copy = nullptr;
    Require(Instance_Copy(made, &copy, nullptr) == RESULT_OK);
    (void)Instance_Delete(copy);
    (void)Instance_Dismantle(made);
  }
}

// Returns the packed instance, or no bytes if it cannot be packed.
OwnBytes Pack(const Instance* instance, std::size_t capacity) {
  PackBuf buffer;
  Require(PackBuf_Init(&buffer, static_cast<std::uint32_t>(capacity)) == RESULT_OK);
  const bool isPacked = Instance_Pack(instance, false, nullptr, nullptr, &buffer) == RESULT_OK;
  OwnBytes bytes(buffer.data, buffer.data + (isPacked ? buffer.size : 0));
  Require(bytes.size() <= capacity);
  PackBuf_Destroy(&buffer);
  return bytes;
}

// Refills an instance with other bytes, among them malformed ones: the result and the position are
// those of a new instance.
void Refill(const std::uint8_t* data, std::size_t size, const OwnBytes& packed) {
  Instance* used = nullptr;
  for (std::size_t change = 0; change <= 8; ++change) {
    OwnBytes changed(data, data + size);
    if (change < 8) changed[(size - 1) * change / 8] ^= static_cast<std::uint8_t>(1u << change);
    OwnBytes original = changed, next(data, data + size);
    Instance* made = nullptr;
    PackBuf reader = next.Reader(), other = original.Reader(), into = changed.Reader();
    Require(Instance_UnpackInto(&used, &reader) == RESULT_OK);
    Require(Instance_UnpackInto(&used, &into) == Instance_Unpack(&made, &other, nullptr, false));
    Require((used != nullptr) == (made != nullptr));
    if (made == nullptr) continue;
    Require(into.offset == other.offset);
    Require(Pack(used, 2 * size + 256) == Pack(made, 2 * size + 256));
    Require(change < 8 || Pack(used, 2 * size + 256) == packed);
    Require(Instance_Delete(made) == RESULT_OK);
  }
  Instance_Drop(used);
}

}  // namespace
}  // namespace stewardry::cim

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stewardry;
  using namespace stewardry::cim;
  OwnBytes borrowed(data, data + size), copied = borrowed;
  PackBuf borrow = borrowed.Reader(), copy = copied.Reader();
  Instance *shallow = nullptr, *deep = nullptr;
  const bool isRead = Instance_Unpack(&shallow, &borrow, nullptr, false) == RESULT_OK;
  Require(isRead == (Instance_Unpack(&deep, &copy, nullptr, true) == RESULT_OK));
  if (!isRead) return 0;
  Require(borrow.offset == copy.offset);
  for (const ClassDef* target :
       {&rack_schema::kRack, &rack_schema::kDisk, MethodDef_AsClass(&rack_schema::kFit)})
    Convert(deep, target);
  const std::size_t room = 2 * size + 256;  // a return value has a longer name when packed
  OwnBytes first = Pack(deep, room);
  const OwnBytes borrowedPacked = Pack(shallow, room);
  Require(first.empty() == borrowedPacked.empty());
  Refill(data, size, borrowedPacked);
  Require(Instance_Delete(shallow) == RESULT_OK && Instance_Delete(deep) == RESULT_OK);
  if (first.empty()) return 0;
  OwnBytes again = first;
  PackBuf reader = again.Reader();
  Require(Instance_Unpack(&deep, &reader, nullptr, true) == RESULT_OK);
  Require(Pack(deep, room) == first);
  Require(Instance_Delete(deep) == RESULT_OK);
  return 0;
}
