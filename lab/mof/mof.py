#!/usr/bin/env python3
"""Compiles class declarations in MOF (DSP0004, clause 7) to tables for the CIM object library.

mof.py INPUT.mof OUTPUT.cpp NAME    writes a SchemaDef `NAME`, declared in a header of the caller

Understood: comments, classes with a superclass, qualifiers, properties with defaults, references,
arrays and methods. Pragmas are skipped; instances and qualifier declarations are refused. A class
must stand before its subclasses. A redeclared property takes the place of the inherited one. Each
problem is one line, "FILE:LINE: sentence", and the exit code is then 1."""
import re
import sys
from dataclasses import dataclass, field

TOKEN = re.compile(r"""(?P<space>\s+|//[^\n]*|/\*.*?\*/)|(?P<pragma>\#pragma[^\n]*)
    |(?P<text>"(?:[^"\\\n]|\\.)*")|(?P<number>[+-]?(?:0[xX][0-9a-fA-F]+|\d+(?:\.\d+(?:[eE][+-]?\d+)?)?))
    |(?P<name>[A-Za-z_]\w*)|(?P<mark>[\[\](){},;:=$])""", re.X | re.S)
TYPES = ("boolean uint8 sint8 uint16 sint16 uint32 sint32 uint64 sint64 real32 real64 char16 "
         "datetime string").split()
MEMBERS = {"boolean": "std::uint8_t", "char16": "char16_t", "real32": "float", "real64": "double",
           "string": "const char16_t*"} | {
               sign + "int" + bits: "std::%sint%s_t" % ("u" * (sign == "u"), bits)
               for sign in "us" for bits in ("8", "16", "32", "64")}


class Problem(Exception):
    """A sentence about the line at which the input cannot be understood."""


@dataclass
class Element:
    """A property, a parameter or a return value."""
    name: str
    type: str  # of TYPES, or "reference" or "instance"
    is_array: bool
    reference: str  # the class that a reference or an embedded instance names, or "" for any
    qualifiers: dict
    default: object = None
    origin: str = ""


@dataclass
class Method:
    name: str
    parameters: list  # of Element, the return value first
    qualifiers: dict
    origin: str = ""


@dataclass
class Class:
    name: str
    superclass: str
    qualifiers: dict
    properties: list = field(default_factory=list)
    methods: list = field(default_factory=list)


class Parser:
    """Recursive descent over the tokens of one file. `classes` has the result, by lower name."""

    def __init__(self, path, text):
        self.path, self.tokens, self.at, self.classes = path, [], 0, {}
        line, place = 1, 0
        while place < len(text):
            found = TOKEN.match(text, place)
            if not found:
                raise Problem("%s:%d: unexpected %r" % (path, line, text[place]))
            if found.lastgroup not in ("space", "pragma"):
                self.tokens.append((found.lastgroup, found[0], line))
            line += found[0].count("\n")
            place = found.end()
        self.tokens.append(("end", "the end of the file", line))

    def fail(self, sentence):
        raise Problem("%s:%d: %s" % (self.path, self.tokens[self.at][2], sentence))

    def take(self, kind=None, text=None):
        """Returns the next token's text. Fails if it is of another kind or text."""
        found, value, _ = self.tokens[self.at]
        if (kind and found != kind) or (text and value.lower() != text):
            self.fail("expected %s, found %s" % (text or "a " + kind, value))
        self.at += 1
        return value

    def takes(self, text):
        """Takes the token if it has this text."""
        if self.tokens[self.at][1].lower() != text:
            return False
        self.at += 1
        return True

    def parse(self):
        while self.tokens[self.at][0] != "end":
            self.declare(self.qualifiers())

    def qualifiers(self):
        found = {}
        if not self.takes("["):
            return found
        while True:
            name, value = self.take("name").lower(), True
            if self.takes("("):
                value = self.value()
                self.take(text=")")
            elif self.tokens[self.at][1] == "{":
                value = self.value()
            if self.takes(":"):
                while self.tokens[self.at][0] == "name":  # flavors change nothing here
                    self.take()
            if name in found:
                self.fail("qualifier %s stands twice" % name)
            found[name] = value
            if not self.takes(","):
                self.take(text="]")
                return found

    def value(self):
        if self.takes("{"):
            values = []
            while not self.takes("}"):
                values.append(self.value())
                if self.tokens[self.at][1] != "}":
                    self.take(text=",")
            return values
        kind, text, _ = self.tokens[self.at]
        self.take()
        if kind == "text":
            value = re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t"}.get(m[1], m[1]), text[1:-1])
            while self.tokens[self.at][0] == "text":  # adjacent texts are one
                value += self.value()
            return value
        if kind == "number":
            return float(text) if "." in text else int(text, 0)
        constants = {"true": True, "false": False, "null": None}
        if text.lower() in constants:
            return constants[text.lower()]
        return self.fail("%s is no value" % text)

    def declare(self, qualifiers):
        self.take(text="class")
        made = Class(self.take("name"), self.take("name") if self.takes(":") else "", qualifiers)
        if made.name.lower() in self.classes:
            self.fail("class %s stands twice" % made.name)
        if made.superclass:
            parent = self.classes.get(made.superclass.lower())
            if not parent:
                self.fail("superclass %s is not declared before" % made.superclass)
            made.superclass = parent.name
            made.properties, made.methods = list(parent.properties), list(parent.methods)
        self.take(text="{")
        own = set()
        while not self.takes("}"):
            feature = self.feature(made.name)
            if feature.name.lower() in own:
                self.fail("%s stands twice in %s" % (feature.name, made.name))
            own.add(feature.name.lower())
            features = made.methods if isinstance(feature, Method) else made.properties
            replaced = [i for i, old in enumerate(features)
                        if old.name.lower() == feature.name.lower()]
            if not replaced:
                features.append(feature)
                continue
            old = features[replaced[0]]  # an inherited one keeps its qualifiers and its origin
            feature.qualifiers = old.qualifiers | feature.qualifiers
            feature.origin = old.origin
            features[replaced[0]] = feature
        self.take(text=";")
        self.classes[made.name.lower()] = made

    def element(self, qualifiers, name=None):
        """Reads "uint16 Name[]", "CIM_X REF Name". With a name, reads the type of a return value."""
        word = self.take("name")
        kind, reference = word.lower(), ""
        if self.takes("ref"):
            kind, reference = "reference", word
        elif kind not in TYPES:
            self.fail("%s is no type" % word)
        elif "embeddedinstance" in qualifiers or "embeddedobject" in qualifiers:
            kind, reference = "instance", qualifiers.get("embeddedinstance", "")
        made = Element(name or self.take("name"), kind, False, reference, qualifiers)
        if not name and self.takes("["):
            made.is_array = True
            if self.tokens[self.at][0] == "number":
                self.take()
            self.take(text="]")
        return made

    def feature(self, class_name):
        qualifiers = self.qualifiers()
        start = self.at
        made = self.element(qualifiers)
        made.origin = class_name
        if self.takes("("):
            name, self.at = made.name, start
            result = self.element(qualifiers, "LumoReturn")  # packed as "ReturnValue"
            result.qualifiers = {"out": True}
            self.take("name"), self.take()
            made = Method(name, [result], qualifiers, class_name)
            while not self.takes(")"):
                made.parameters.append(self.element(self.qualifiers()))
                if self.tokens[self.at][1] != ")":
                    self.take(text=",")
        elif self.takes("="):
            made.default = self.value()
            if isinstance(made.default, list) or made.is_array or made.type in (
                    "datetime", "reference", "instance"):
                self.fail("a default of %s is not supported" % made.name)
        self.take(text=";")
        return made


def quoted(text):
    plain = {'"': '\\"', "\\": "\\\\", "\n": "\\n", "\t": "\\t"}
    return 'u"%s"' % "".join(plain.get(c, c if " " <= c <= "~" else "\\U%08X" % ord(c))
                             for c in text)


def literal(value):
    return quoted(value) if isinstance(value, str) else str(value).lower()


class Writer:
    """Writes the tables. Every definition is a constant of its own, named after its place."""

    def __init__(self):
        self.lines = []

    def add(self, line):
        self.lines.append(line)

    def array(self, kind, name, items):
        """Defines an array of pointers. Returns its name, or nullptr for none."""
        if not items:
            return "nullptr"
        self.add("constexpr const %s* %s[] = {%s};" % (kind, name, ", ".join("&" + i for i in items)))
        return name

    def qualifiers(self, place, qualifiers):
        names = []
        for name, value in qualifiers.items():
            if value is None or isinstance(value, list):
                continue  # value maps are for readers of the MOF
            kind = {bool: ("std::uint8_t", "CIM_BOOLEAN"), str: ("const char16_t*", "CIM_STRING"),
                    int: ("std::uint32_t", "CIM_UINT32"), float: ("double", "CIM_REAL64")}
            member, code = kind[type(value)]
            names.append("%s_Q%s" % (place, name))
            value = int(value) if isinstance(value, bool) else value
            self.add("constexpr %s %s_Value = %s;" % (member, names[-1], literal(value)))
            self.add("constexpr QualifierDef %s = {u\"%s\", %s, 0, &%s_Value};"
                     % (names[-1], name, code, names[-1]))
        return "%s, %d" % (self.array("QualifierDef", place + "_Qualifiers", names), len(names))

    def elements(self, place, kind, elements):
        """Defines properties or parameters with their layout. Returns array and count."""
        types = ["CIM_" + e.type.upper() + "A" * e.is_array for e in elements]
        if types:
            self.add("constexpr auto %s_Layout = LayOut(std::array{%s});" % (place, ", ".join(types)))
        names = []
        for index, element in enumerate(elements):
            name = "%s_%s" % (place, element.name)
            flags = " | ".join(
                flag for flag, qualifier in (("FLAG_KEY", "key"), ("FLAG_OUT", "out"))
                if element.qualifiers.get(qualifier)) or "0"
            if kind == "ParameterDef":
                flags += " | FLAG_PARAMETER"
            reference = quoted(element.reference) if element.reference else "nullptr"
            rest = ""
            if kind == "PropertyDef":
                default = "nullptr"
                if element.default is not None:
                    default = "&%s_Default" % name
                    self.add("constexpr %s %s_Default = %s;"
                             % (MEMBERS[element.type], name, literal(element.default)))
                origin = quoted(element.origin)
                rest = ", %s, %s, %s" % (origin, origin, default)
            qualifiers = self.qualifiers(name, element.qualifiers)
            self.add("constexpr %s %s = {%s, Name_Code(u\"%s\"), u\"%s\", %s, %s, %s, 0, "
                     "%s_Layout[%d]%s};" % (kind, name, flags, element.name, element.name,
                                            qualifiers, types[index], reference, place, index, rest))
            names.append(name)
        array = self.array(kind, "%s_%ss" % (place, kind), names)
        size = "%s_Layout.back()" % place if names else "kNoProperties"
        return "%s, %d, %s" % (array, len(names), size)

    def method(self, place, method, schema):
        name = "%s_M%s" % (place, method.name)
        parameters = self.elements(name, "ParameterDef", method.parameters)
        qualifiers = self.qualifiers(name, method.qualifiers)
        result = method.parameters[0]
        self.add("constexpr MethodDef %s = {FLAG_METHOD, Name_Code(u\"%s\"), u\"%s\", %s, %s, "
                 "CIM_%s, %s, %s, &%s, 0};"
                 % (name, method.name, method.name, qualifiers, parameters, result.type.upper(),
                    quoted(method.origin), quoted(method.origin), schema))
        return name

    def define(self, made, schema):
        place = "k" + made.name
        properties = self.elements(place, "PropertyDef", made.properties)
        methods = [self.method(place, method, schema) for method in made.methods]
        array = self.array("MethodDef", place + "_Methods", methods)
        qualifiers = self.qualifiers(place, made.qualifiers)
        superclass = ("%s, &k%s" % (quoted(made.superclass), made.superclass)
                      if made.superclass else "nullptr, nullptr")
        self.add("constexpr ClassDef %s = {FLAG_CLASS, Name_Code(u\"%s\"), u\"%s\", %s, %s, %s, %s, "
                 "%d, &%s, 0, kOwnerNone};\n" % (place, made.name, made.name, qualifiers, properties,
                                                superclass, array, len(methods), schema))


def tables(classes, schema):
    """Returns the source text of the tables."""
    writer = Writer()
    for made in classes:
        writer.define(made, schema)
    names = writer.array("ClassDef", "kClasses", ["k" + made.name for made in classes])
    return "\n".join([
        "// Made by lab/mof/mof.py.", '#include "lab/mof/layout.h"', "",
        "namespace orrin {", "", "using namespace stewardry::cim;", "",
        "extern const SchemaDef %s;" % schema, "namespace {", "", *writer.lines, "", "}  // namespace",
        "const SchemaDef %s = {%s, %d, nullptr, 0};" % (schema, names, len(classes)), "",
        "}  // namespace orrin", ""])


def main():
    source, target, schema = sys.argv[1:]
    with open(source, encoding="utf-8") as file:
        text = file.read()
    try:
        parser = Parser(source, text)
        parser.parse()
    except Problem as problem:
        sys.exit(str(problem))
    with open(target, "w", encoding="utf-8") as file:
        file.write(tables(list(parser.classes.values()), schema))


if __name__ == "__main__":
    main()
