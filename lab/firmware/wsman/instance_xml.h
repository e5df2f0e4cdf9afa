// Instances as XML (DSP0230): a class' elements in the name space of its URI, references as
// endpoint references, date-times in their schema form.
#pragma once

#include <string>

#include "lab/firmware/model/objects.h"
#include "lab/firmware/wsman/envelope.h"
#include "lab/firmware/wsman/xml.h"

namespace orrin {

// Returns the URI of a class.
std::string UriOf(const cim::ClassDef* def);
// Returns the class of a resource URI. Throws Fault for any other URI.
const cim::ClassDef& ClassOf(const std::string& resourceUri);

// Writes the properties of the instance as an element named `name`, with the prefix p for `uri`.
// With `only`, writes the properties that this superclass has.
void WriteInstance(const cim::Instance* instance, const std::string& name, const std::string& uri,
                   const cim::ClassDef* only, XmlWriter* writer);
// Writes address and reference parameters: what an endpoint reference contains.
void WriteReference(const cim::Instance* instance, XmlWriter* writer);

// Stores the value of one element, or of several of one name for an array. Throws Fault for an
// unknown property and for texts that do not fit its type.
void StoreElements(cim::Instance* instance, const std::string& name,
                   const std::vector<const xmlNode*>& elements);
// Does so with every element in `parent`.
void StoreChildren(cim::Instance* instance, const xmlNode* parent);

// Returns an instance of the class with the keys that the selectors give. Throws Fault for
// selectors that are not exactly the keys.
Object KeyOf(const cim::ClassDef& def, const std::vector<Selector>& selectors);

}  // namespace orrin
