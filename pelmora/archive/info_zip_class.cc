// The late-bound face of InfoZip: creatable as "Pelmora.InfoZip", members in interface order.
// AddFile, RemoveFile and RemoveAllFile return an empty value.
#include <cstdint>
#include <string>

#include "pelmora/archive/info_zip.h"
#include "pelmora/automation/class_binder.h"
#include "pelmora/common/variant.h"

namespace pelmora {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;

#define PELMORA_ZIP_FLAG(name)                      \
  Property(                                         \
      #name, [](InfoZip& z) { return z.name(); },   \
      [](InfoZip& z, bool value) { z.name(value); })
#define PELMORA_ZIP_TEXT(name)                      \
  Property(                                         \
      #name, [](InfoZip& z) { return z.name(); },   \
      [](InfoZip& z, const std::string& value) { z.name(value); })

const ClassRegistrar kInfoZipClass(
    ClassBinder<InfoZip>("Pelmora.InfoZip")
        .PELMORA_ZIP_FLAG(RecurseFolders)
        .PELMORA_ZIP_TEXT(ZipFileName)
        .PELMORA_ZIP_FLAG(Encrypted)
        .PELMORA_ZIP_TEXT(Password)
        .PELMORA_ZIP_FLAG(IncludeSystemFiles)
        .PELMORA_ZIP_FLAG(IgnorePath)
        .Property("ZipFileCount", [](InfoZip& z) { return z.ZipFileCount(); })
        .PELMORA_ZIP_TEXT(RootDirectory)
        .PELMORA_ZIP_FLAG(UpdatingZip)
        .Method("AddFile",
                [](InfoZip& z, const std::string& sFileName) {
                  z.AddFile(sFileName);
                  return Variant();
                })
        .Method("RemoveFile",
                [](InfoZip& z, const std::string& sFileName) {
                  z.RemoveFile(sFileName);
                  return Variant();
                })
        .Method("RemoveAllFile",
                [](InfoZip& z) {
                  z.RemoveAllFile();
                  return Variant();
                })
        .Method("Create", [](InfoZip& z) { return z.Create(); })
        .Property("ErrNumber", [](InfoZip& z) { return z.ErrNumber(); })
        .Property("ErrDescription", [](InfoZip& z) { return z.ErrDescription(); }));

#undef PELMORA_ZIP_FLAG
#undef PELMORA_ZIP_TEXT

}  // namespace
}  // namespace pelmora
