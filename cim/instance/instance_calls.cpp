// The calls that go through an instance's own table, whichever it is.
#include "cim/instance/instance.h"
#include "cim/instance/table_call.h"

namespace stewardry::cim {

Result Instance_Clone(const Instance* instance, Instance** clone) {
  return CallThroughTable(instance, &InstanceOps::Clone, clone);
}

Result Instance_Dismantle(Instance* instance) {
  return CallThroughTable(instance, &InstanceOps::Dismantle);
}

Result Instance_Delete(Instance* instance) {
  return CallThroughTable(instance, &InstanceOps::Delete);
}

Result Instance_IsKindOf(const Instance* instance, const ClassDef* def, bool* isKind) {
  return CallThroughTable(instance, &InstanceOps::IsKindOf, def, isKind);
}

Result Instance_ClassNameOf(const Instance* instance, const char16_t** name) {
  return CallThroughTable(instance, &InstanceOps::ClassNameOf, name);
}

Result Instance_SetNamespace(Instance* instance, const char16_t* name) {
  return CallThroughTable(instance, &InstanceOps::SetNamespace, name);
}

Result Instance_NamespaceOf(const Instance* instance, const char16_t** name) {
  return CallThroughTable(instance, &InstanceOps::NamespaceOf, name);
}

Result Instance_PropertyCountOf(const Instance* instance, std::uint32_t* count) {
  return CallThroughTable(instance, &InstanceOps::PropertyCountOf, count);
}

Result Instance_AddProperty(Instance* instance, const char16_t* name, const CimValue* value,
                            std::uint32_t type, std::uint32_t flags) {
  return CallThroughTable(instance, &InstanceOps::AddProperty, name, value, type, flags);
}

Result Instance_StoreProperty(Instance* instance, const char16_t* name, const CimValue* value,
                              std::uint32_t type, std::uint32_t flags) {
  return CallThroughTable(instance, &InstanceOps::StoreProperty, name, value, type, flags);
}

Result Instance_StorePropertyAt(Instance* instance, std::uint32_t index, const CimValue* value,
                                std::uint32_t type, std::uint32_t flags) {
  return CallThroughTable(instance, &InstanceOps::StorePropertyAt, index, value, type, flags);
}

Result Instance_ReadProperty(const Instance* instance, const char16_t* name, CimValue* value,
                             std::uint32_t* type, std::uint32_t* flags, std::uint32_t* index) {
  return CallThroughTable(instance, &InstanceOps::ReadProperty, name, value, type, flags, index);
}

Result Instance_PropertyAt(const Instance* instance, std::uint32_t index, const char16_t** name,
                           CimValue* value, std::uint32_t* type, std::uint32_t* flags) {
  return CallThroughTable(instance, &InstanceOps::PropertyAt, index, name, value, type, flags);
}

Result Instance_ClearProperty(Instance* instance, const char16_t* name) {
  return CallThroughTable(instance, &InstanceOps::ClearProperty, name);
}

Result Instance_ClearPropertyAt(Instance* instance, std::uint32_t index) {
  return CallThroughTable(instance, &InstanceOps::ClearPropertyAt, index);
}

Result Instance_HostNameOf(const Instance* instance, const char16_t** name) {
  return CallThroughTable(instance, &InstanceOps::HostNameOf, name);
}

Result Instance_SetHostName(Instance* instance, const char16_t* name) {
  return CallThroughTable(instance, &InstanceOps::SetHostName, name);
}

Result Instance_MakeClassObject(const Instance* instance, ClassObject** made) {
  return CallThroughTable(instance, &InstanceOps::MakeClassObject, made);
}

}  // namespace stewardry::cim
