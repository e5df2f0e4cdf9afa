// Values in words: one row for each scalar type, and arrays from the rows of their elements.
#include "lab/cim/description.h"

#include <array>
#include <charconv>
#include <cstring>
#include <type_traits>

#include "base/datetime.h"
#include "base/text.h"

namespace cim {

using namespace stewardry;

namespace {

constexpr std::size_t kIndent = 2;

std::string DescribeAt(const Instance* instance, std::size_t indent);

// The element at `raw`, which has its element size and perhaps no alignment.
template <class Element>
Element At(const void* raw) {
  Element element;
  std::memcpy(&element, raw, sizeof element);
  return element;
}

std::string ToUtf8(const char16_t* text) {
  if (text == nullptr) return {};
  const std::size_t units = std::char_traits<char16_t>::length(text);
  std::string utf8(units * 3, '\0');  // the most that a unit becomes
  const int size =
      Text_ToUtf8(text, static_cast<int>(units), utf8.data(), static_cast<int>(utf8.size()));
  utf8.resize(static_cast<std::size_t>(size));
  for (char& each : utf8)
    if (static_cast<unsigned char>(each) < 0x20 || each == 0x7F) each = '.';
  return utf8;
}

template <class Number>
std::string NumberAt(const void* raw, std::size_t) {
  char digits[32];
  const auto number = At<Number>(raw);
  // A char would come out as a letter.
  using Shown = std::conditional_t<sizeof(Number) == 1, int, Number>;
  const auto end = std::to_chars(digits, digits + sizeof digits, static_cast<Shown>(number)).ptr;
  return {digits, end};
}

std::string BooleanAt(const void* raw, std::size_t) {
  return At<std::uint8_t>(raw) != 0 ? "true" : "false";
}

std::string CharAt(const void* raw, std::size_t) {
  const char16_t text[] = {At<char16_t>(raw), 0};
  return "'" + ToUtf8(text) + "'";
}

std::string DatetimeAt(const void* raw, std::size_t) {
  const auto value = At<CimDatetime>(raw);
  char16_t text[kFixedDatetimeSize];
  Datetime_ToFixed(&value, text);
  return ToUtf8(text);
}

std::string StringAt(const void* raw, std::size_t) {
  return '"' + ToUtf8(At<const char16_t*>(raw)) + '"';
}

std::string InstanceAt(const void* raw, std::size_t indent) {
  std::string text = DescribeAt(At<const Instance*>(raw), indent + kIndent);
  if (!text.empty()) text.pop_back();  // whoever asked ends the line
  return "\n" + text;
}

using Writer = std::string (*)(const void* raw, std::size_t indent);
constexpr std::array<Writer, CIM_ARRAY> kWriters = {
    BooleanAt,
    NumberAt<std::uint8_t>,
    NumberAt<std::int8_t>,
    NumberAt<std::uint16_t>,
    NumberAt<std::int16_t>,
    NumberAt<std::uint32_t>,
    NumberAt<std::int32_t>,
    NumberAt<std::uint64_t>,
    NumberAt<std::int64_t>,
    NumberAt<float>,
    NumberAt<double>,
    CharAt,
    DatetimeAt,
    StringAt,
    InstanceAt,
    InstanceAt,
};

std::string ArrayAt(const ArrayValue& array, std::uint32_t elementType, std::size_t indent) {
  const auto* element = static_cast<const std::uint8_t*>(array.data);
  std::string text = "{";
  for (std::uint32_t i = 0; i < array.size; ++i, element += kElementSizes[elementType])
    text += (i > 0 ? ", " : "") + kWriters[elementType](element, indent);
  return text + "}";
}

std::string ValueAt(const CimValue& value, std::uint32_t type, std::size_t indent) {
  if (CimType_IsArray(type)) return ArrayAt(value.array, CimType_Element(type), indent);
  return kWriters[type](value.bytes, indent);
}

std::string PropertyAt(const Instance* instance, std::uint32_t index, std::size_t indent) {
  const char16_t* name;
  CimValue value;
  std::uint32_t type, flags;
  if (Instance_PropertyAt(instance, index, &name, &value, &type, &flags) != RESULT_OK) return {};
  const bool isNull = (flags & FLAG_NULL) != 0;
  return std::string(indent, ' ') + ToUtf8(name) + " (" + kCimTypeNames[type] +
         ((flags & FLAG_KEY) != 0 ? ", key" : "") +
         ") = " + (isNull ? "null" : ValueAt(value, type, indent)) + "\n";
}

std::string DescribeAt(const Instance* instance, std::size_t indent) {
  const char16_t* className;
  const char16_t* nameSpace;
  std::uint32_t count;
  if (Instance_ClassNameOf(instance, &className) != RESULT_OK ||
      Instance_NamespaceOf(instance, &nameSpace) != RESULT_OK ||
      Instance_PropertyCountOf(instance, &count) != RESULT_OK)
    return {};
  std::string text = std::string(indent, ' ') + ToUtf8(className);
  if (nameSpace != nullptr) text += " in " + ToUtf8(nameSpace);
  text += "\n";
  for (std::uint32_t i = 0; i < count; ++i) text += PropertyAt(instance, i, indent + kIndent);
  return text;
}

}  // namespace

std::string Describe(const Instance* instance) { return DescribeAt(instance, 0); }

}  // namespace cim
