#include "lab/cim/description.h"

#include <array>
#include <charconv>

#include "cim/text/text.h"
#include "cim/value/datetime.h"

namespace cim_ship {

using namespace stewardry;
using namespace stewardry::cim;

namespace {

constexpr std::size_t kIndent = 2;

std::string DescribeAt(const Instance* instance, std::size_t indent);

std::string ToUtf8(const char16_t* text) {
  if (text == nullptr) return {};
  std::u16string shown(text);
  for (char16_t& unit : shown)  // a terminal also interprets the control characters from 0x7F on
    if (unit < 0x20 || (unit >= 0x7F && unit < 0xA0)) unit = u'.';
  std::string utf8(shown.size() * 3, '\0');  // the most bytes of a unit
  const int size = Text_ToUtf8(shown.data(), static_cast<int>(shown.size()), utf8.data(),
                               static_cast<int>(utf8.size()));
  utf8.resize(static_cast<std::size_t>(size));
  return utf8;
}

std::string Quoted(const char16_t* text, char quote) {
  std::string quoted(1, quote);
  quoted += ToUtf8(text);
  quoted += quote;
  return quoted;
}

template <auto Form>
std::string Number(const CimValue& value, std::size_t) {
  char digits[32];
  const auto end = std::to_chars(digits, digits + sizeof digits, value.*Form).ptr;
  return {digits, end};
}

std::string Boolean(const CimValue& value, std::size_t) {
  return value.boolean != 0 ? "true" : "false";
}

std::string Char(const CimValue& value, std::size_t) {
  const char16_t text[] = {value.char16, 0};
  return Quoted(text, '\'');
}

std::string Datetime(const CimValue& value, std::size_t) {
  char16_t text[kFixedDatetimeSize];
  Datetime_ToFixed(&value.datetime, text);
  return ToUtf8(text);
}

std::string String(const CimValue& value, std::size_t) { return Quoted(value.string, '"'); }

std::string Nested(const CimValue& value, std::size_t indent) {
  std::string text = "\n";
  text += DescribeAt(value.instance, indent + kIndent);
  text.pop_back();  // the caller ends the line
  return text;
}

using Writer = std::string (*)(const CimValue& value, std::size_t indent);
constexpr std::array<Writer, CIM_ARRAY> kWriters = {
    Boolean,
    Number<&CimValue::uint8>,
    Number<&CimValue::sint8>,
    Number<&CimValue::uint16>,
    Number<&CimValue::sint16>,
    Number<&CimValue::uint32>,
    Number<&CimValue::sint32>,
    Number<&CimValue::uint64>,
    Number<&CimValue::sint64>,
    Number<&CimValue::real32>,
    Number<&CimValue::real64>,
    Char,
    Datetime,
    String,
    Nested,
    Nested,
};

std::string Array(const ArrayValue& array, std::uint32_t elementType, std::size_t indent) {
  const auto* raw = static_cast<const std::uint8_t*>(array.data);
  std::string text = "{";
  for (std::uint32_t i = 0; i < array.size; ++i, raw += kElementSizes[elementType]) {
    CimValue element;
    CimValue_FromRaw(elementType, raw, &element);
    if (i > 0) text += ", ";
    text += kWriters[elementType](element, indent);
  }
  return text + "}";
}

std::string Value(const CimValue& value, std::uint32_t type, std::size_t indent) {
  if (CimType_IsArray(type)) return Array(value.array, CimType_Element(type), indent);
  return kWriters[type](value, indent);
}

std::string Property(const Instance* instance, std::uint32_t index, std::size_t indent) {
  const char16_t* name;
  CimValue value;
  std::uint32_t type, flags;
  if (Instance_PropertyAt(instance, index, &name, &value, &type, &flags) != RESULT_OK) return {};
  const bool isNull = (flags & FLAG_NULL) != 0;
  return std::string(indent, ' ') + ToUtf8(name) + " (" + kCimTypeNames[type] +
         ((flags & FLAG_KEY) != 0 ? ", key" : "") +
         ") = " + (isNull ? "null" : Value(value, type, indent)) + "\n";
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
  for (std::uint32_t i = 0; i < count; ++i) text += Property(instance, i, indent + kIndent);
  return text;
}

}  // namespace

std::string Describe(const Instance* instance) { return DescribeAt(instance, 0); }

}  // namespace cim_ship
