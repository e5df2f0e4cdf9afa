// Dynamic instances built in one line, and properties read back by their type.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "base/instance/typed_instance.h"

namespace stewardry {

using Bytes = std::vector<std::uint8_t>;

// A dynamic instance with its own batch.
class Dynamic {
 public:
  explicit Dynamic(const char16_t* className) {
    EXPECT_EQ(Instance_CreateDynamic(&instance_, className, 0, nullptr), RESULT_OK);
  }
  Dynamic(const Dynamic&) = delete;
  Dynamic& operator=(const Dynamic&) = delete;
  ~Dynamic() { EXPECT_EQ(Instance_Delete(instance_), RESULT_OK); }

  Instance* Get() const { return instance_; }
  Dynamic& Null(const char16_t* name, std::uint32_t type, std::uint32_t flags = 0) {
    return Add(name, type, nullptr, flags);
  }
  Dynamic& Text(const char16_t* name, const char16_t* text, std::uint32_t flags = 0) {
    CimValue value{};
    value.string = text;
    return Add(name, CIM_STRING, &value, flags);
  }
  Dynamic& Nested(const char16_t* name, const Dynamic& nested, std::uint32_t type = CIM_INSTANCE) {
    CimValue value{};
    value.instance = nested.Get();
    return Add(name, type, &value, 0);
  }
  Dynamic& Array(const char16_t* name, std::uint32_t type, const void* data, std::size_t count) {
    CimValue value{};
    value.array = {const_cast<void*>(data), static_cast<std::uint32_t>(count), 0};  // copied
    return Add(name, type, &value, 0);
  }

 private:
  Dynamic& Add(const char16_t* name, std::uint32_t type, const CimValue* value,
               std::uint32_t flags) {
    EXPECT_EQ(Instance_AddProperty(instance_, name, value, type, flags), RESULT_OK);
    return *this;
  }
  Instance* instance_ = nullptr;
};

inline CimValue Read(const Instance* instance, const char16_t* name, std::uint32_t type) {
  CimValue value{};
  EXPECT_EQ(Instance_GetValueOfType(instance, name, &value, type), RESULT_OK);
  return value;
}

inline bool IsNull(const Instance* instance, const char16_t* name) {
  std::uint32_t flags = 0;
  EXPECT_EQ(Instance_ReadProperty(instance, name, nullptr, nullptr, &flags, nullptr), RESULT_OK);
  return (flags & FLAG_NULL) != 0;
}

inline Bytes ReadBytes(const Instance* instance, const char16_t* name) {
  const ArrayValue array = Read(instance, name, CIM_UINT8A).array;
  const auto* data = static_cast<const std::uint8_t*>(array.data);
  return Bytes(data, data + array.size);
}

}  // namespace stewardry
