// XML through libxml2: documents from the network, and a writer. Documents come from any peer: no
// document type is accepted, so there are no entities and no bombs; nothing is loaded; nesting and
// sizes have libxml2's bounds, which its "huge" option would lift.
#pragma once

#include <libxml/tree.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orrin {

struct FreeDocument {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
using Document = std::unique_ptr<xmlDoc, FreeDocument>;

// Returns null, with the reason in *problem, for bytes that are no well-formed document without a
// document type.
Document ParseDocument(std::string_view bytes, std::string* problem);

// The nodes are the document's. All accept null, as an element without children, name and text.
bool Is(const xmlNode* element, const char* nameSpace, const char* name);
// Returns the child element of that name, or null.
const xmlNode* Child(const xmlNode* element, const char* nameSpace, const char* name);
const xmlNode* FirstChild(const xmlNode* element);
std::vector<const xmlNode*> Children(const xmlNode* element);
std::string NameOf(const xmlNode* element);
std::string NameSpaceOf(const xmlNode* element);
// Returns the text of the element and what it contains, without blanks at its ends.
std::string TextOf(const xmlNode* element);
// Returns an attribute, in no name space if `nameSpace` is null.
std::optional<std::string> Attribute(const xmlNode* element, const char* nameSpace,
                                     const char* name);

// Returns the element as XML, with the name spaces that its names need.
std::string XmlOf(const xmlNode* element);

// Writes one fragment of XML. Texts are escaped; characters that XML cannot hold become dots.
class XmlWriter {
 public:
  // Begins an element; `name` has its prefix. Returns this, as all calls do.
  XmlWriter& Begin(const std::string& name);
  // Adds an attribute to the element that was begun last. Requires that it has no content yet.
  XmlWriter& With(const std::string& name, std::string_view value);
  XmlWriter& Text(std::string_view text);
  // Adds what another writer has made.
  XmlWriter& Raw(std::string_view xml);
  XmlWriter& End();
  // Adds a whole element.
  XmlWriter& Element(const std::string& name, std::string_view text) {
    return Begin(name).Text(text).End();
  }
  // Returns what was written. Requires that every element has ended.
  const std::string& Written() const;

 private:
  void CloseTag();

  std::string text_;
  std::vector<std::string> open_;
  bool isInTag_ = false;
};

}  // namespace orrin
