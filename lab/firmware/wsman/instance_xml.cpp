#include "lab/firmware/wsman/instance_xml.h"

#include <utility>

#include "lab/firmware/core/text.h"
#include "lab/firmware/model/repository.h"
#include "lab/firmware/wsman/names.h"

namespace orrin {

using namespace stewardry;
using namespace stewardry::cim;

namespace {

constexpr std::string_view kNamespaceSelector = "__cimnamespace";
// The packed form names the return value differently from the definition.
constexpr char16_t kReturnName[] = u"LumoReturn";

std::string ShownName(const char16_t* name) {
  return Name_Equal(name, kReturnName) ? "ReturnValue" : Utf8(name);
}

void WriteScalar(const Property& p, const std::string& element, const std::string& text,
                 XmlWriter* writer) {
  writer->Begin(element);
  if (CimType_Element(p.type) != CIM_DATETIME) {
    writer->Text(text).End();
    return;
  }
  writer->Element(text.starts_with('P') ? "cim:Interval" : "cim:Datetime", text).End();
}

void WriteProperty(const Instance* owner, const Property& p, const char* prefix, XmlWriter* writer);

// Writes the properties that are not null: an event has little room.
void WriteEmbedded(const Instance* instance, const std::string& element, XmlWriter* writer) {
  writer->Begin(element).With("xmlns:e", UriOf(instance->def));
  writer->With("xsi:type", "e:" + Utf8(instance->def->name) + "_Type");
  for (const Property& p : PropertiesOf(instance))
    if (!p.IsNull()) WriteProperty(instance, p, "e:", writer);
  writer->End();
}

void WriteProperty(const Instance* owner, const Property& p, const char* prefix,
                   XmlWriter* writer) {
  const std::string element = prefix + ShownName(p.name);
  if (p.IsNull()) {
    writer->Begin(element).With("xsi:nil", "true").End();
  } else if (p.type == CIM_REFERENCE) {
    writer->Begin(element);
    WriteReference(p.value.reference, writer);
    writer->End();
  } else if (p.type == CIM_UINT8A && HasQualifier(owner->def, p.name, u"OctetString")) {
    writer->Element(element, OctetText(p.value.array));
  } else if (p.type == CIM_INSTANCE) {
    WriteEmbedded(p.value.instance, element, writer);
  } else if (!CimType_HoldsInstances(p.type)) {
    for (const std::string& text : TextsOf(p)) WriteScalar(p, element, text, writer);
  }
}

// Returns the text of a value: of the element, or of the date-time in it.
std::string ValueText(const xmlNode* element) {
  for (const char* form : {"Datetime", "Interval", "Date"}) {
    if (const xmlNode* inner = Child(element, uri::kCimCommon, form)) return TextOf(inner);
  }
  return TextOf(element);
}

// Returns the key instance that an endpoint reference names.
Object ReferenceIn(const xmlNode* element) {
  const xmlNode* parameters = Child(element, uri::kAddressing, "ReferenceParameters");
  if (parameters == nullptr)  // a selector has the whole reference in it
    parameters = Child(Child(element, uri::kAddressing, "EndpointReference"), uri::kAddressing,
                       "ReferenceParameters");
  const xmlNode* const resource = Child(parameters, uri::kWsman, "ResourceURI");
  if (resource == nullptr)
    throw Fault{FaultCode::kInvalidParameter, "InvalidType", "No endpoint reference."};
  return KeyOf(ClassOf(TextOf(resource)),
               SelectorsIn(Child(parameters, uri::kWsman, "SelectorSet")));
}

bool IsNil(const xmlNode* element) {
  const auto nil = Attribute(element, uri::kXmlSchemaInstance, "nil");
  return nil && (*nil == "true" || *nil == "1");
}

bool StoreValue(Instance* instance, const Property& p,
                const std::vector<const xmlNode*>& elements) {
  if (IsNil(elements.front()))
    return elements.size() == 1 && Instance_ClearProperty(instance, p.name) == RESULT_OK;
  if (p.type == CIM_REFERENCE)
    return elements.size() == 1 &&
           SetInstance(instance, p.name, ReferenceIn(elements.front()).get());
  std::vector<std::string> texts;
  for (const xmlNode* element : elements) texts.push_back(ValueText(element));
  if (CimType_IsArray(p.type)) return SetTexts(instance, p.name, texts);
  return texts.size() == 1 && SetText(instance, p.name, texts.front());
}

std::uint32_t KeyCount(const ClassDef& def) {
  std::uint32_t count = 0;
  for (std::uint32_t i = 0; i < def.propertyCount; ++i)
    count += (def.properties[i]->flags & FLAG_KEY) != 0 ? 1 : 0;
  return count;
}

}  // namespace

std::string UriOf(const ClassDef* def) { return uri::kCimSchema + Utf8(def->name); }

const ClassDef& ClassOf(const std::string& resourceUri) {
  const std::string_view prefix = uri::kCimSchema;
  const ClassDef* const def = resourceUri.starts_with(prefix)
                                  ? FindClass(std::string_view(resourceUri).substr(prefix.size()))
                                  : nullptr;
  if (def == nullptr) throw Fault{FaultCode::kDestinationUnreachable, "InvalidResourceURI"};
  return *def;
}

void WriteInstance(const Instance* instance, const std::string& name, const std::string& uri,
                   const ClassDef* only, XmlWriter* writer) {
  writer->Begin("p:" + name).With("xmlns:p", uri);
  for (const Property& p : PropertiesOf(instance)) {
    if (only == nullptr || ClassDef_GetProperty(only, p.name) != nullptr)
      WriteProperty(instance, p, "p:", writer);
  }
  writer->End();
}

void WriteReference(const Instance* instance, XmlWriter* writer) {
  const char16_t* name = u"";
  (void)Instance_ClassNameOf(instance, &name);  // an instance always has a name
  writer->Element("wsa:Address", uri::kAnonymous).Begin("wsa:ReferenceParameters");
  writer->Element("wsman:ResourceURI", uri::kCimSchema + Utf8(name)).Begin("wsman:SelectorSet");
  for (const Property& p : PropertiesOf(instance)) {
    if (!p.IsKey() || p.IsNull()) continue;
    writer->Begin("wsman:Selector").With("Name", Utf8(p.name));
    if (p.type == CIM_REFERENCE) {
      writer->Begin("wsa:EndpointReference");
      WriteReference(p.value.reference, writer);
      writer->End();
    } else {
      writer->Text(TextOfValue(p.type, p.value));
    }
    writer->End();
  }
  writer->End().End();
}

void StoreElements(Instance* instance, const std::string& name,
                   const std::vector<const xmlNode*>& elements) {
  const std::u16string wide = Utf16(name);
  const auto property = PropertyOf(instance, wide.c_str());
  if (!property) throw Fault{FaultCode::kInvalidParameter, "InvalidName", name + " is unknown."};
  if (!StoreValue(instance, *property, elements))
    throw Fault{FaultCode::kInvalidParameter, "TypeMismatch",
                "The value of " + name + " is not of its type."};
}

void StoreChildren(Instance* instance, const xmlNode* parent) {
  std::vector<std::pair<std::string, std::vector<const xmlNode*>>> groups;
  for (const xmlNode* child : Children(parent)) {
    // Elements of an array need not stand together.
    auto group = groups.begin();
    while (group != groups.end() && !SameIgnoringCase(group->first, NameOf(child))) ++group;
    if (group == groups.end()) group = groups.insert(group, {NameOf(child), {}});
    group->second.push_back(child);
  }
  for (const auto& [name, elements] : groups) StoreElements(instance, name, elements);
}

Object KeyOf(const ClassDef& def, const std::vector<Selector>& selectors) {
  Object key = MakeObject(def);
  if (key == nullptr) throw Fault{FaultCode::kInternalError};
  std::uint32_t count = 0;
  for (const Selector& selector : selectors) {
    if (SameIgnoringCase(selector.name, kNamespaceSelector)) continue;  // there is one name space
    const PropertyDef* const property = ClassDef_GetProperty(&def, Utf16(selector.name).c_str());
    if (property == nullptr || (property->flags & FLAG_KEY) == 0)
      throw Fault{FaultCode::kInvalidSelectors, "UnexpectedSelectors",
                  selector.name + " is no key."};
    try {
      StoreElements(key.get(), selector.name, {selector.value});
    } catch (const Fault&) {
      throw Fault{FaultCode::kInvalidSelectors, "TypeMismatch",
                  "The value of " + selector.name + " is not of its type."};
    }
    ++count;
  }
  if (count < KeyCount(def)) throw Fault{FaultCode::kInvalidSelectors, "InsufficientSelectors"};
  return key;
}

}  // namespace orrin
