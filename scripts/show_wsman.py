#!/usr/bin/env python3
"""Prints WS-Management answers, given as files, as a person wants to read them: each instance with its
class and the properties that have a value, references as Class(key=value), faults as a sentence."""
import sys
import xml.etree.ElementTree as xml

SOAP = "{http://www.w3.org/2003/05/soap-envelope}"
WSMAN = "{http://schemas.dmtf.org/wbem/wsman/1/wsman.xsd}"
NIL = "{http://www.w3.org/2001/XMLSchema-instance}nil"
CIM = "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/"
# What only the protocol needs to know.
SKIPPED = {"EnumerationContext", "EndOfSequence"}


def plain(element):
    return element.tag.rpartition("}")[2]


def value(element):
    """Returns the text of a property; a date-time and a reference have it further inside."""
    selectors = element.findall("%sReferenceParameters/%sSelectorSet/*" % (addressing(element), WSMAN))
    if selectors:
        resource = element.findtext("%sReferenceParameters/%sResourceURI" % (addressing(element), WSMAN))
        keys = ("%s=%s" % (key.get("Name"), value(key[0] if len(key) else key)) for key in selectors)
        return "%s(%s)" % (resource.rpartition("/")[2], ", ".join(keys))
    return " ".join("".join(element.itertext()).split())


def addressing(element):
    found = [child for child in element if plain(child) == "ReferenceParameters"]
    return found[0].tag.rpartition("}")[0] + "}" if found else ""


def show(element):
    """Prints an instance, or looks for instances inside."""
    if [plain(child) for child in element] == ["EnumerationContext"]:
        return
    if element.tag.startswith("{" + CIM) or not any(len(child) for child in element):
        print("  " + plain(element).removesuffix("_OUTPUT"))
        for child in element:
            if child.get(NIL) != "true":
                print("    %-30s %s" % (plain(child), value(child)))
        return
    for child in element:
        if plain(child) == "EndpointReference":
            print("  " + value(child))
        elif plain(child) not in SKIPPED:
            show(child)


def names(element):
    """Prints a list of class names, several on a line."""
    line = ""
    for child in element:
        if len(line) + len(child.text) > 90:
            print("  " + line)
            line = ""
        line += child.text + "  "
    print("  " + line)


def main():
    for path in sys.argv[1:]:
        body = xml.parse(path).getroot().find(SOAP + "Body")
        fault = body.find(SOAP + "Fault")
        if fault is not None:
            print("  fault: " + fault.findtext(SOAP + "Reason/" + SOAP + "Text"))
            continue
        for element in body:
            names(element) if plain(element).startswith("EnumerateClassNames") else show(element)


if __name__ == "__main__":
    main()
