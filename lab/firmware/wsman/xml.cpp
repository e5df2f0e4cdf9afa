#include "lab/firmware/wsman/xml.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <cassert>
#include <climits>
#include <cstring>

#include "lab/firmware/core/text.h"

namespace orrin {

namespace {

struct FreeContext {
  void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};

struct FreeText {
  void operator()(xmlChar* text) const { xmlFree(text); }
};
using OwnText = std::unique_ptr<xmlChar, FreeText>;

std::string Copy(const xmlChar* text) {
  return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
}

const xmlChar* Name(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

// Called at "<!DOCTYPE": before anything of the document type is read.
void RefuseDocumentType(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  auto* const parser = static_cast<xmlParserCtxt*>(context);
  parser->wellFormed = 0;
  parser->errNo = XML_ERR_DOCUMENT_START;
  xmlStopParser(parser);
}

std::string ProblemOf(xmlParserCtxt* context) {
  const xmlError* const error = xmlCtxtGetLastError(context);
  if (error == nullptr || error->message == nullptr) return "a document type, or no content";
  return Printable(Trimmed(error->message), 200);
}

}  // namespace

Document ParseDocument(std::string_view bytes, std::string* problem) {
  if (bytes.size() > INT_MAX) return nullptr;
  const std::unique_ptr<xmlParserCtxt, FreeContext> context(xmlNewParserCtxt());
  if (context == nullptr) return nullptr;
  context->sax->internalSubset = RefuseDocumentType;
  constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING |
                           XML_PARSE_NOCDATA | XML_PARSE_COMPACT;
  Document document(xmlCtxtReadMemory(context.get(), bytes.data(), static_cast<int>(bytes.size()),
                                      nullptr, nullptr, kOptions));
  if (document != nullptr && context->wellFormed != 0) return document;
  *problem = ProblemOf(context.get());
  return nullptr;
}

bool Is(const xmlNode* element, const char* nameSpace, const char* name) {
  if (element == nullptr || element->ns == nullptr) return false;
  return xmlStrEqual(element->name, Name(name)) != 0 &&
         xmlStrEqual(element->ns->href, Name(nameSpace)) != 0;
}

std::vector<const xmlNode*> Children(const xmlNode* element) {
  std::vector<const xmlNode*> found;
  for (const xmlNode* node = element == nullptr ? nullptr : element->children; node != nullptr;
       node = node->next)
    if (node->type == XML_ELEMENT_NODE) found.push_back(node);
  return found;
}

const xmlNode* Child(const xmlNode* element, const char* nameSpace, const char* name) {
  for (const xmlNode* child : Children(element))
    if (Is(child, nameSpace, name)) return child;
  return nullptr;
}

const xmlNode* FirstChild(const xmlNode* element) {
  const auto children = Children(element);
  return children.empty() ? nullptr : children.front();
}

std::string NameOf(const xmlNode* element) {
  return element == nullptr ? std::string() : Copy(element->name);
}

std::string NameSpaceOf(const xmlNode* element) {
  return element == nullptr || element->ns == nullptr ? std::string() : Copy(element->ns->href);
}

std::string TextOf(const xmlNode* element) {
  if (element == nullptr) return {};
  const OwnText text(xmlNodeGetContent(element));
  return std::string(Trimmed(Copy(text.get())));
}

std::optional<std::string> Attribute(const xmlNode* element, const char* nameSpace,
                                     const char* name) {
  if (element == nullptr) return {};
  const OwnText text(nameSpace == nullptr ? xmlGetNoNsProp(element, Name(name))
                                          : xmlGetNsProp(element, Name(name), Name(nameSpace)));
  return text == nullptr ? std::nullopt : std::optional(Copy(text.get()));
}

void XmlWriter::CloseTag() {
  if (isInTag_) text_ += '>';
  isInTag_ = false;
}

std::string XmlOf(const xmlNode* element) {
  // A document of its own makes libxml2 declare the name spaces of the ancestors in the copy.
  const Document document(xmlNewDoc(nullptr));
  xmlNode* const copy = document == nullptr
                            ? nullptr
                            : xmlDocCopyNode(const_cast<xmlNode*>(element), document.get(), 1);
  if (copy == nullptr) return {};
  (void)xmlDocSetRootElement(document.get(), copy);
  xmlBuffer* const buffer = xmlBufferCreate();
  if (buffer == nullptr) return {};
  std::string text;
  if (xmlNodeDump(buffer, document.get(), copy, 0, 0) > 0)
    text = reinterpret_cast<const char*>(xmlBufferContent(buffer));
  xmlBufferFree(buffer);
  return text;
}

XmlWriter& XmlWriter::Begin(const std::string& name) {
  CloseTag();
  text_.append("<").append(name);
  open_.push_back(name);
  isInTag_ = true;
  return *this;
}

XmlWriter& XmlWriter::With(const std::string& name, std::string_view value) {
  assert(isInTag_);
  text_.append(" ").append(name).append("=\"").append(XmlText(value)).append("\"");
  return *this;
}

XmlWriter& XmlWriter::Text(std::string_view text) {
  CloseTag();
  text_ += XmlText(text);
  return *this;
}

XmlWriter& XmlWriter::Raw(std::string_view xml) {
  CloseTag();
  text_ += xml;
  return *this;
}

XmlWriter& XmlWriter::End() {
  assert(!open_.empty());
  if (isInTag_) {
    text_ += "/>";
  } else {
    text_.append("</").append(open_.back()).append(">");
  }
  isInTag_ = false;
  open_.pop_back();
  return *this;
}

const std::string& XmlWriter::Written() const {
  assert(open_.empty());
  return text_;
}

}  // namespace orrin
