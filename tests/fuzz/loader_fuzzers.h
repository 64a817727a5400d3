// Shared parts of the fuzz targets of chains, arguments and registry files: every
// arguments class of this build, chosen by the input's first byte, and a check that what a
// loader left behind can still be saved in every form.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "com/errorinfo.h"
#include "framework/argument_declarations.h"
#include "framework/function_interfaces.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "server/entry_points.h"

namespace pw::fuzz {

// An empty arguments object of one of the declared classes, picked by `choice`.
inline ComPtr<IUnknown> ArgumentsObject(std::uint8_t choice) {
  const auto decls = framework::FunctionDeclarations();
  if (decls.empty()) return nullptr;
  const framework::FunctionDeclaration* decl = decls[choice % decls.size()];
  ComPtr<IUnknown> object;
  (void)server::CreateInstance(ToUtf16(decl->arguments), &object);
  return object;
}

// Saves `object` in its three forms, whatever state a loader left it in.
inline int SaveEveryForm(IUnknown* object) {
  if (object != nullptr) {
    std::vector<std::uint8_t> bytes;
    std::string text;
    (void)persist::SaveToBytes(object, persist::kCurrentDocumentVersion, &bytes);
    (void)persist::SaveXml(object, &text);
    (void)persist::SaveJson(object, &text);
  }
  ClearErrorInfo();
  return 0;
}

}  // namespace pw::fuzz
