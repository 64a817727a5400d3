// A class's name, identifier and persistence registration from its name alone, so that
// each is written once per class:
//
//   class SlopeFunction : public TerrainFunction {
//    public:
//     PW_CLASS_IDENTITY(SlopeFunction)
//     ...
//   PW_REGISTER_CLASS(SlopeFunction);   // in the .cpp
//
// gives kTypeName ("SlopeFunction"), TypeName() and ClassId() (the name-based identifier)
// and registers the class for the persistence readers. The server's class table lists the
// class by the same name.
#pragma once

#include <string_view>

#include "com/guid.h"
#include "raster/persist/class_registry.h"

#define PW_CLASS_IDENTITY(Name)                        \
  static constexpr std::string_view kTypeName = #Name; \
                                                       \
 protected:                                            \
  std::u16string_view TypeName() const override {      \
    return u"" #Name;                                  \
  }                                                    \
  CLSID ClassId() const override {                     \
    return ::pw::ClassIdFromName(kTypeName);           \
  }                                                    \
                                                       \
 public:

#define PW_REGISTER_CLASS(Name) \
  PW_REGISTER_PERSIST_CLASS(Name, ::pw::ClassIdFromName(Name::kTypeName))
