// Owned CIM instances, and their values as texts. The library's functions report failures as
// results; here a failure that only a wrong program can cause is an assertion, and one that comes
// from outside is returned.
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cim/instance/instance.h"
#include "text/code_points.h"

namespace orrin {

namespace cim = stewardry::cim;
using stewardry::Utf16;

struct DeleteInstance {
  void operator()(cim::Instance* instance) const { cim::Instance_Drop(instance); }
};
// An instance of one owner, in a batch of its own. Null is none.
using Object = std::unique_ptr<cim::Instance, DeleteInstance>;

// Returns a text in UTF-8. Half a surrogate pair becomes U+FFFD.
std::string Utf8(const char16_t* text);

// Returns a new instance with the defaults of its class, null if memory is short.
Object MakeObject(const cim::ClassDef& def);
// Returns a deep copy in a batch of its own, null if memory is short.
Object CopyObject(const cim::Instance* instance);

// Stores `text`, in UTF-8, converted to the property's type; an octet string comes as Base64.
// Unlike the library's conversion it refuses numbers that the type cannot hold, and an empty text
// for a number. Returns false, with the old value kept, for a text that is no value of the type,
// for an unknown property, and for a type without text form.
bool SetText(cim::Instance* instance, const char16_t* name, std::string_view text);
// Does the same with all elements of an array.
bool SetTexts(cim::Instance* instance, const char16_t* name, const std::vector<std::string>& texts);
// Stores a copy of `value` in a reference or an embedded instance.
bool SetInstance(cim::Instance* instance, const char16_t* name, const cim::Instance* value);

// One property of an instance. Name and value are the instance's.
struct Property {
  const char16_t* name = nullptr;
  cim::CimValue value{};
  std::uint32_t type = 0;
  std::uint32_t flags = 0;
  bool IsNull() const { return (flags & cim::FLAG_NULL) != 0; }
  bool IsKey() const { return (flags & cim::FLAG_KEY) != 0; }
};
std::vector<Property> PropertiesOf(const cim::Instance* instance);
std::optional<Property> PropertyOf(const cim::Instance* instance, const char16_t* name);

// Return a value, or each element of an array, as text: numbers in decimal, a date-time in its
// schema form. Require a type that has a text form, so no reference and no embedded instance.
std::string TextOfValue(std::uint32_t type, const cim::CimValue& value);
std::vector<std::string> TextsOf(const Property& property);
// Returns the content of an octet string as Base64.
std::string OctetText(const cim::ArrayValue& octets);

// Returns true if the class or a superclass has that name, ignoring case.
bool IsOfClass(const cim::ClassDef* def, const char16_t* name);
// Returns true if the class declares the property with a true boolean qualifier of that name.
bool HasQualifier(const cim::ClassDef* def, const char16_t* property, const char16_t* qualifier);

}  // namespace orrin
