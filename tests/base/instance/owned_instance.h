// What the tests of instances build with: owners that end what they hold, and values.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "base/instance/instance.h"

namespace stewardry {

// Ends an instance with its scope.
struct Owned {
  Instance* instance = nullptr;
  Owned() = default;
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { End(); }
  void End() {
    if (instance == nullptr) return;
    EXPECT_EQ(Instance_Delete(instance), RESULT_OK);
    instance = nullptr;
  }
};

// A batch of the test's own; with a limit of 0 each request is one of the heap's.
struct OwnBatch : Batch {
  explicit OwnBatch(std::uint64_t limit = kNoPageLimit) : Batch{} { Batch_Init(this, limit); }
  OwnBatch(const OwnBatch&) = delete;
  OwnBatch& operator=(const OwnBatch&) = delete;
  ~OwnBatch() { Batch_Destroy(this); }
};

inline CimValue Number(std::uint32_t number) {
  CimValue value = {};
  value.uint32 = number;
  return value;
}

inline CimValue Text(const char16_t* text) {
  CimValue value = {};
  value.string = text;
  return value;
}

inline CimValue Pointer(Instance* instance) {
  CimValue value = {};
  value.instance = instance;
  return value;
}

inline Result Add(Instance* instance, const std::u16string& name, std::uint32_t type,
                  const CimValue& value, std::uint32_t flags = 0) {
  return Instance_AddProperty(instance, name.c_str(), &value, type, flags);
}

inline void MakeDynamic(Owned* made, Batch* batch = nullptr) {
  ASSERT_EQ(Instance_CreateDynamic(&made->instance, u"Fan", 0, batch), RESULT_OK);
}

}  // namespace stewardry
