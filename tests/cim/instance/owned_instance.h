// Helpers for tests of instances: values, an owner of an instance, reads of its properties, and a
// heap that refuses each allocation in turn.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cim/instance/instance.h"
#include "cim/memory/heap.h"

namespace stewardry::cim {

inline CimValue Number(std::uint64_t number) { return {.uint64 = number}; }
inline CimValue Text(const char16_t* text) { return {.string = text}; }
inline CimValue Nested(Instance* instance) { return {.instance = instance}; }
// The library only reads the elements.
template <class Element>
CimValue Array(Element* data, std::size_t count) {
  void* elements = const_cast<void*>(static_cast<const void*>(data));
  return {.array = {elements, static_cast<std::uint32_t>(count), 0}};
}

// A batch of the test. With a limit of 0 each of its allocations reaches the heap.
struct OwnBatch : Batch {
  explicit OwnBatch(std::uint64_t limit = kNoPageLimit) : Batch{} { Batch_Init(this, limit); }
  OwnBatch(const OwnBatch&) = delete;
  OwnBatch& operator=(const OwnBatch&) = delete;
  ~OwnBatch() { Batch_Destroy(this); }
};

// A property to add to a dynamic instance.
struct Given {
  const char16_t* name;
  std::uint32_t type;
  CimValue value;
  std::uint32_t flags = 0;
};

// Owns an instance and deletes it. Converts to the instance.
class Owned {
 public:
  Owned() = default;
  explicit Owned(const char16_t* className, const std::vector<Given>& properties = {}) {
    EXPECT_EQ(Instance_CreateDynamic(&instance_, className, 0, nullptr), RESULT_OK);
    for (const Given& each : properties) Add(each);
  }
  explicit Owned(const ClassDef* def) {
    EXPECT_EQ(Instance_Create(&instance_, def, nullptr), RESULT_OK);
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { Delete(); }

  // Where a call stores the instance that it makes.
  Instance** Out() { return &instance_; }
  operator Instance*() const { return instance_; }
  Instance* operator->() const { return instance_; }
  void Add(const Given& property) {
    EXPECT_EQ(Instance_AddProperty(instance_, property.name, &property.value, property.type,
                                   property.flags),
              RESULT_OK);
  }
  void Delete() {
    EXPECT_EQ(instance_ == nullptr ? RESULT_OK : Instance_Delete(instance_), RESULT_OK);
    instance_ = nullptr;
  }

 private:
  Instance* instance_ = nullptr;
};

// The results of Instance_ReadProperty.
struct Found {
  Result result;
  CimValue value;
  std::uint32_t type, flags, index;
  bool IsNull() const { return result == RESULT_OK && (flags & FLAG_NULL) != 0; }
};
inline Found Read(const Instance* instance, const char16_t* name) {
  Found made{};
  made.result =
      Instance_ReadProperty(instance, name, &made.value, &made.type, &made.flags, &made.index);
  return made;
}

// Returns the value of a property of this type that is not null.
inline CimValue Read(const Instance* instance, const char16_t* name, std::uint32_t type) {
  const Found found = Read(instance, name);
  EXPECT_TRUE(found.result == RESULT_OK && found.type == type && !found.IsNull());
  return found.value;
}

template <class Element>
std::vector<Element> ElementsOf(const CimValue& value) {
  const auto* data = static_cast<const Element*>(value.array.data);
  return std::vector<Element>(data, data + value.array.size);
}

// Repeats an operation and refuses a later allocation each time, until a run has none to refuse:
// for (HeapSweep sweep; sweep.Next();) { ... sweep.Run(...) ... }
class HeapSweep {
 public:
  bool Next() { return ++failAt_ == 1 || hasRefused_; }
  template <class Operation>
  auto Run(Operation operation) {
    heap_gate::Arm(failAt_);
    auto result = operation();
    hasRefused_ = heap_gate::Requests() >= failAt_;
    heap_gate::Disarm();
    return result;
  }
  bool HasRefused() const { return hasRefused_; }

 private:
  std::uint64_t failAt_ = 0;
  bool hasRefused_ = false;
};

}  // namespace stewardry::cim
