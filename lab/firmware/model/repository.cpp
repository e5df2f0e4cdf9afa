#include "lab/firmware/model/repository.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "cim/packing/packing.h"

namespace orrin {

using namespace stewardry;
using namespace stewardry::cim;

namespace {

constexpr std::size_t kMostBytes = 4 << 20;

struct DestroyBatch {
  void operator()(Batch* batch) const { Batch_Destroy(batch); }
};
using OwnBatch = std::unique_ptr<Batch, DestroyBatch>;

// Makes an instance of the class here that `source`, which describes itself, is one of. Returns
// null for an unknown class, for properties that the class does not have, and for missing keys.
Object OnItsClass(const Instance* source) {
  const char16_t* name = nullptr;
  if (Instance_ClassNameOf(source, &name) != RESULT_OK) return nullptr;
  const ClassDef* const def = Schema_FindClass(&gDashSchema, name);
  if (def == nullptr) return nullptr;
  Object made = MakeObject(*def);
  for (const Property& p : PropertiesOf(source)) {
    if (made == nullptr) return nullptr;
    const std::uint32_t flags = p.flags & FLAG_NULL;
    if (Instance_StoreProperty(made.get(), p.name, &p.value, p.type, flags) != RESULT_OK)
      return nullptr;
  }
  return made != nullptr && Instance_KeysComplete(made.get()) ? std::move(made) : nullptr;
}

// Copies what a console has written from the old instance to its successor.
void KeepWritten(const Instance* old, Instance* successor) {
  for (const Property& p : PropertiesOf(old)) {
    if (p.IsNull() || !HasQualifier(old->def, p.name, u"Write")) continue;
    // Both are of one class, and without memory the value is lost, as any would be.
    (void)Instance_StoreProperty(successor, p.name, &p.value, p.type, 0);
  }
}

void AppendWord(std::uint32_t word, std::string* bytes) {
  bytes->append(reinterpret_cast<const char*>(&word), sizeof word);
}

}  // namespace

const ClassDef* FindClass(std::string_view name) {
  return Schema_FindClass(&gDashSchema, Utf16(name).c_str());
}

std::vector<Object>::const_iterator Repository::Place(const Instance* key) const {
  return std::find_if(objects_.begin(), objects_.end(), [key](const Object& object) {
    return object->def == key->def && Instance_KeysEqual(object.get(), key);
  });
}

void Repository::Put(Object object) {
  if (object == nullptr) return;
  const auto place = Place(object.get());
  if (place == objects_.end()) return objects_.push_back(std::move(object));
  KeepWritten(place->get(), object.get());
  objects_[static_cast<std::size_t>(place - objects_.begin())] = std::move(object);
}

void Repository::RemoveClass(const char16_t* className) {
  std::erase_if(objects_, [className](const Object& object) {
    return Name_Equal(object->def->name, className);
  });
}

Instance* Repository::Find(const Instance* key) const {
  const auto place = Place(key);
  return place == objects_.end() ? nullptr : place->get();
}

std::vector<Instance*> Repository::OfClass(const ClassDef& def) const {
  std::vector<Instance*> found;
  for (const Object& object : objects_)
    if (IsOfClass(object->def, def.name)) found.push_back(object.get());
  return found;
}

Repository Repository::Copy() const {
  Repository copy;
  for (const Object& object : objects_) {
    Object one = CopyObject(object.get());
    if (one != nullptr) copy.objects_.push_back(std::move(one));
  }
  return copy;
}

std::string Repository::Packed() const {
  std::string bytes;
  for (const Object& object : objects_) {
    const OwnBatch batch(Batch_Create(kNoPageLimit));
    void* packed = nullptr;
    std::uint32_t size = 0;
    if (batch == nullptr || Instance_PackToBatch(object.get(), nullptr, nullptr, batch.get(),
                                                 &packed, &size) != RESULT_OK)
      return {};
    AppendWord(size, &bytes);
    AppendWord(0, &bytes);
    bytes.append(static_cast<const char*>(packed), size);
    bytes.append((8 - size % 8) % 8, '\0');
  }
  return bytes;
}

std::size_t Repository::Restore(std::string_view bytes) {
  std::size_t leftOut = 0;
  while (!bytes.empty()) {
    std::uint32_t size = 0;
    if (bytes.size() < 8) return leftOut + 1;
    std::memcpy(&size, bytes.data(), sizeof size);
    bytes.remove_prefix(8);
    if (size > bytes.size()) return leftOut + 1;
    const OwnBatch batch(Batch_Create(kNoPageLimit));
    // Unpacking changes the bytes, and they must be aligned.
    void* const copy = batch != nullptr ? Batch_Alloc(batch.get(), size) : nullptr;
    if (copy == nullptr) return leftOut + 1;
    std::memcpy(copy, bytes.data(), size);
    Instance* unpacked = nullptr;
    Object object;
    if (Instance_UnpackBytes(batch.get(), copy, size, &unpacked)) object = OnItsClass(unpacked);
    if (object == nullptr) ++leftOut;
    Put(std::move(object));
    bytes.remove_prefix(std::min<std::size_t>(bytes.size(), (std::size_t{size} + 7) / 8 * 8));
  }
  return leftOut;
}

std::string ReadRepositoryFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string bytes(kMostBytes, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

bool WriteRepositoryFile(const std::string& path, const std::string& bytes) {
  const std::string made = path + ".new";
  std::ofstream file(made, std::ios::binary | std::ios::trunc);
  file << bytes;
  file.close();
  return file.good() && std::rename(made.c_str(), path.c_str()) == 0;
}

}  // namespace orrin
