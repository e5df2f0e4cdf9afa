// A small schema as a generator writes it: constant data, with every field of a definition in use.
// Device has the key Id; Fan adds properties and a method.
#pragma once

#include "cim/instance/class_definitions.h"

namespace stewardry::cim::fan_schema {

inline constexpr std::uint32_t kNameAt = 80, kSize = 128;

inline constexpr std::uint8_t kTrue = 1;
inline constexpr std::uint32_t kFour = 4;
inline constexpr QualifierDef kOctets = {u"Octetstring", CIM_BOOLEAN, 0x400, &kTrue};
inline constexpr QualifierDef kVersion = {u"Version", CIM_UINT32, 0x401, &kFour};
inline constexpr const QualifierDef* kQualifiers[] = {&kOctets, &kVersion};

inline constexpr const char16_t* kDefaultName = u"unnamed";
inline constexpr std::uint32_t kDefaultSpeeds[] = {100, 200, 300};
// The library only reads the elements.
inline const ArrayValue kSpeedList = {const_cast<std::uint32_t*>(kDefaultSpeeds), 3, 0};

// flags, code, name, qualifiers, their number, type, class of a reference, size, offset, origin,
// propagator, default
inline constexpr PropertyDef kId = {FLAG_KEY, Name_Code(u"Id"), u"Id",   nullptr,
                                    0,        CIM_UINT32,       nullptr, 0,
                                    64,       nullptr,          nullptr, &kFour};
inline constexpr PropertyDef kName = {0,       Name_Code(u"Name"), u"Name",       kQualifiers,
                                      2,       CIM_STRING,         u"Ref",        77,
                                      kNameAt, u"Origin",          u"Propagator", &kDefaultName};
inline const PropertyDef kSpeeds = {
    0,       Name_Code(u"Speeds"), u"Speeds", nullptr, 0, CIM_UINT32A, nullptr, 0, 96, nullptr,
    nullptr, &kSpeedList};
inline constexpr PropertyDef kOn = {0,           Name_Code(u"On"), u"On", nullptr, 0,
                                    CIM_BOOLEAN, nullptr,          0,     120};
inline const PropertyDef* const kProperties[] = {&kId, &kName, &kSpeeds, &kOn};

inline constexpr ParameterDef kReturn = {
    0, Name_Code(u"Return"), u"Return", kQualifiers, 1, CIM_UINT32, nullptr, 0, 64};
inline constexpr ParameterDef kTarget = {
    FLAG_OUT, Name_Code(u"Target"), u"Target", kQualifiers, 2, CIM_REFERENCE, u"Device", 5, 72};
inline constexpr const ParameterDef* kParameters[] = {&kReturn, &kTarget};

// flags, code, name, qualifiers, their number, parameters, their number, size, type of the return
// value, origin, propagator
inline constexpr MethodDef kSpin = {
    FLAG_METHOD, Name_Code(u"Spin"), u"Spin",   kQualifiers,  2, kParameters, 2,
    88,          CIM_UINT32,         u"Origin", u"Propagator"};
inline constexpr MethodDef kHalt = {0, Name_Code(u"Halt"), u"Halt", nullptr, 0, kParameters, 1};
inline constexpr const MethodDef* kMethods[] = {&kSpin, &kHalt};

// flags, code, name, qualifiers, their number, properties, their number, size, superclass' name,
// superclass, methods, their number
inline const ClassDef kDevice = {FLAG_CLASS, Name_Code(u"Device"), u"Device", nullptr,
                                 0,          kProperties,          1,         80};
inline const ClassDef kFan = {FLAG_CLASS, Name_Code(u"Fan"), u"Fan",   kQualifiers,
                              2,          kProperties,       4,        kSize,
                              u"Device",  &kDevice,          kMethods, 2};

}  // namespace stewardry::cim::fan_schema
