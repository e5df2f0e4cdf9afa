#include "lab/firmware/model/objects.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstring>
#include <type_traits>

#include "cim/instance/typed_instance.h"
#include "cim/text/base64.h"
#include "cim/text/text.h"
#include "cim/value/datetime.h"

namespace orrin {

using namespace stewardry;
using namespace stewardry::cim;

namespace {

constexpr std::size_t kOctetHead = 4;  // the length before an octet string's content

template <class Number>
bool IsNumber(std::string_view text) {
  Number number{};
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

bool IsAnything(std::string_view) { return true; }
bool IsNotEmpty(std::string_view text) { return !text.empty(); }

// The texts that a scalar type accepts, by type code.
constexpr bool (*kAccepts[CIM_ARRAY])(std::string_view text) = {
    IsNotEmpty,
    IsNumber<std::uint8_t>,
    IsNumber<std::int8_t>,
    IsNumber<std::uint16_t>,
    IsNumber<std::int16_t>,
    IsNumber<std::uint32_t>,
    IsNumber<std::int32_t>,
    IsNumber<std::uint64_t>,
    IsNumber<std::int64_t>,
    IsNumber<float>,
    IsNumber<double>,
    IsNumber<std::uint16_t>,
    IsNotEmpty,
    IsAnything,
    nullptr,
    nullptr,
};

template <auto Form>
std::string NumberText(const CimValue& value) {
  char digits[40];
  const auto end = std::to_chars(digits, digits + sizeof digits, value.*Form).ptr;
  return {digits, end};
}
std::string BooleanText(const CimValue& value) { return value.boolean != 0 ? "true" : "false"; }
std::string CharText(const CimValue& value) { return std::to_string(value.char16); }
std::string StringText(const CimValue& value) { return Utf8(value.string); }
std::string DatetimeText(const CimValue& value) {
  char16_t text[kSchemaDatetimeSize];
  Datetime_ToSchema(&value.datetime, text);
  return Utf8(text);
}

constexpr std::string (*kTexts[CIM_ARRAY])(const CimValue& value) = {
    BooleanText,
    NumberText<&CimValue::uint8>,
    NumberText<&CimValue::sint8>,
    NumberText<&CimValue::uint16>,
    NumberText<&CimValue::sint16>,
    NumberText<&CimValue::uint32>,
    NumberText<&CimValue::sint32>,
    NumberText<&CimValue::uint64>,
    NumberText<&CimValue::sint64>,
    NumberText<&CimValue::real32>,
    NumberText<&CimValue::real64>,
    CharText,
    DatetimeText,
    StringText,
    nullptr,
    nullptr,
};

int AppendChunk(const std::uint8_t* chunk, std::size_t length, void* text) {
  static_cast<std::string*>(text)->append(chunk, chunk + length);
  return 0;
}

// Fills the defaults of the class into the instance, which begins with nulls.
bool SetDefaults(Instance* instance, const ClassDef& def) {
  for (std::uint32_t i = 0; i < def.propertyCount; ++i) {
    const PropertyDef& property = *def.properties[i];
    if (property.value == nullptr) continue;
    CimValue value;
    CimValue_FromRaw(property.type, property.value, &value);
    if (Instance_StorePropertyAt(instance, i, &value, property.type, 0) != RESULT_OK) return false;
  }
  return true;
}

}  // namespace

std::string Utf8(const char16_t* text) {
  const int length = static_cast<int>(std::char_traits<char16_t>::length(text));
  std::string utf8(static_cast<std::size_t>(length) * 3, '\0');  // the most bytes of a unit
  utf8.resize(static_cast<std::size_t>(
      Text_ToUtf8(text, length, utf8.data(), static_cast<int>(utf8.size()))));
  return utf8;
}

Object MakeObject(const ClassDef& def) {
  Instance* made = nullptr;
  if (Instance_Create(&made, &def, nullptr) != RESULT_OK) return nullptr;
  Object object(made);
  // The definition of a method ends where its defaults would begin.
  const bool isClass = (def.flags & kClassKinds) != 0;
  return !isClass || SetDefaults(made, def) ? std::move(object) : nullptr;
}

Object CopyObject(const Instance* instance) {
  Instance* copy = nullptr;
  (void)Instance_Copy(instance, &copy, nullptr);  // null if it fails
  return Object(copy);
}

bool SetText(Instance* instance, const char16_t* name, std::string_view text) {
  const auto property = PropertyOf(instance, name);
  if (!property) return false;
  if (CimType_IsArray(property->type)) return SetTexts(instance, name, {std::string(text)});
  const auto accepts = kAccepts[property->type];
  if (accepts == nullptr || !accepts(text)) return false;
  return Instance_SetFromText(instance, name, Utf16(text).c_str(), 0) == RESULT_OK;
}

bool SetTexts(Instance* instance, const char16_t* name, const std::vector<std::string>& texts) {
  const auto property = PropertyOf(instance, name);
  if (!property || !CimType_IsArray(property->type)) return false;
  const bool isOctets = property->type == CIM_UINT8A && texts.size() == 1 &&
                        HasQualifier(instance->def, name, u"OctetString");
  const auto accepts = isOctets ? IsAnything : kAccepts[CimType_Element(property->type)];
  if (accepts == nullptr || !std::all_of(texts.begin(), texts.end(), accepts)) return false;
  std::vector<std::u16string> wide;
  std::vector<const char16_t*> pointers;
  for (const std::string& text : texts) wide.push_back(Utf16(text));
  for (const std::u16string& text : wide) pointers.push_back(text.c_str());
  return Instance_SetArrayFromTexts(instance, name, pointers.data(),
                                    static_cast<std::uint32_t>(pointers.size()),
                                    isOctets ? kTextOctetString : 0) == RESULT_OK;
}

bool SetInstance(Instance* instance, const char16_t* name, const Instance* value) {
  const auto property = PropertyOf(instance, name);
  if (!property || !CimType_HoldsInstances(property->type)) return false;
  CimValue stored{};
  stored.instance = const_cast<Instance*>(value);  // it is copied
  return Instance_StoreProperty(instance, name, &stored, property->type, 0) == RESULT_OK;
}

std::vector<Property> PropertiesOf(const Instance* instance) {
  std::uint32_t count = 0;
  std::vector<Property> properties;
  if (Instance_PropertyCountOf(instance, &count) != RESULT_OK) return properties;
  properties.resize(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    Property& p = properties[i];
    [[maybe_unused]] const Result read =
        Instance_PropertyAt(instance, i, &p.name, &p.value, &p.type, &p.flags);
    assert(read == RESULT_OK);
  }
  return properties;
}

std::optional<Property> PropertyOf(const Instance* instance, const char16_t* name) {
  Property p;
  p.name = name;
  const Result read = Instance_ReadProperty(instance, name, &p.value, &p.type, &p.flags, nullptr);
  return read == RESULT_OK ? std::optional(p) : std::nullopt;
}

std::string TextOfValue(std::uint32_t type, const CimValue& value) {
  assert(type < CIM_ARRAY && kTexts[type] != nullptr);
  return kTexts[type](value);
}

std::string OctetText(const ArrayValue& array) {
  std::string text;
  if (array.size < kOctetHead) return text;
  (void)Base64Enc(static_cast<const std::uint8_t*>(array.data) + kOctetHead,
                  array.size - kOctetHead, AppendChunk, &text);  // its sink never fails
  return text;
}

std::vector<std::string> TextsOf(const Property& property) {
  if (property.IsNull()) return {};
  if (!CimType_IsArray(property.type)) return {TextOfValue(property.type, property.value)};
  const std::uint32_t type = CimType_Element(property.type);
  const auto* raw = static_cast<const std::uint8_t*>(property.value.array.data);
  std::vector<std::string> texts;
  for (std::uint32_t i = 0; i < property.value.array.size; ++i, raw += kElementSizes[type]) {
    CimValue element;
    CimValue_FromRaw(type, raw, &element);
    texts.push_back(TextOfValue(type, element));
  }
  return texts;
}

bool IsOfClass(const ClassDef* def, const char16_t* name) {
  const std::uint32_t code = Name_Code(name);
  for (; def != nullptr; def = def->superclass)
    if (def->nameCode == code && Name_Equal(def->name, name)) return true;
  return false;
}

bool HasQualifier(const ClassDef* def, const char16_t* property, const char16_t* qualifier) {
  const PropertyDef* const found = ClassDef_GetProperty(def, property);
  for (std::uint32_t i = 0; found != nullptr && i < found->qualifierCount; ++i) {
    const QualifierDef& q = *found->qualifiers[i];
    if (q.type == CIM_BOOLEAN && Name_Equal(q.name, qualifier))
      return q.value != nullptr && *static_cast<const std::uint8_t*>(q.value) != 0;
  }
  return false;
}

}  // namespace orrin
