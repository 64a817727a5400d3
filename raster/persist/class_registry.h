// The persistable classes of the raster object model: each has a type name (used by the
// XML form), a class identifier (used by the object stream) and a creator. Classes
// register themselves at start-up; objects are created by identifier or type name, and
// through CoCreateInstance.
#pragma once

#include <string_view>

#include "raster/interfaces.h"

namespace pw::persist {

using Creator = HRESULT (*)(IUnknown* outer, REFIID riid, void** ppv);

struct PersistClass {
  std::u16string typeName;
  CLSID clsid;
  Creator create;
};

// Adds a class; returns true so that it can initialise a namespace-scope constant.
bool RegisterPersistClass(std::u16string_view typeName, const CLSID& clsid, Creator create);

const PersistClass* FindPersistClass(const CLSID& clsid);
const PersistClass* FindPersistClass(std::u16string_view typeName);

HRESULT CreatePersistObject(const CLSID& clsid, REFIID riid, void** ppv);
HRESULT CreatePersistObject(std::u16string_view typeName, REFIID riid, void** ppv);

// The type name of an object's class (from IPersist::GetClassID); empty when unknown.
std::u16string_view TypeNameOf(IUnknown* object);

// The programmatic identifier prefix of the value classes ("pixwerkSystem.<Type>").
inline constexpr std::string_view kValueProgIdPrefix = "pixwerkSystem";

// The class identifier of a value class from its type name: the name-based identifier
// of "pixwerkSystem.<type name>".
constexpr CLSID ValueClassId(std::string_view typeName) {
  return NameBasedGuid(kPixwerkNamespace, kValueProgIdPrefix, ".", typeName);
}

}  // namespace pw::persist

// Registers a persistable class `Type` (with a static kTypeName, ASCII): creatable by
// class identifier `Clsid`, by type name and through CoCreateInstance.
#define PW_REGISTER_PERSIST_CLASS(Type, Clsid)                                              \
  static const bool pw_registered_##Type = ::pw::persist::RegisterPersistClass(             \
      ::pw::ToUtf16(Type::kTypeName), Clsid, [](IUnknown* outer, REFIID riid, void** ppv) { \
        return ::pw::Guard([&] { return ::pw::CreateObject<Type>(outer, riid, ppv); });     \
      })
#define PW_REGISTER_VALUE_CLASS(Type) \
  PW_REGISTER_PERSIST_CLASS(Type, ::pw::persist::ValueClassId(Type::kTypeName))
