// The late-bound face of InfoUnzip: creatable as "Pelmora.InfoUnzip", members in interface order.
#include <cstdint>
#include <string>

#include "pelmora/archive/info_unzip.h"
#include "pelmora/automation/class_binder.h"
#include "pelmora/common/variant.h"

namespace pelmora {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;

// A Boolean property bound to a getter and setter pair of InfoUnzip.
#define PELMORA_UNZIP_FLAG(name)                                 \
  Property(                                                      \
      #name, [](InfoUnzip& u) { return u.name(); },              \
      [](InfoUnzip& u, bool value) { u.name(value); })
#define PELMORA_UNZIP_NUMBER(name)                               \
  Property(                                                      \
      #name, [](InfoUnzip& u) { return u.name(); },              \
      [](InfoUnzip& u, int32_t value) { u.name(value); })
#define PELMORA_UNZIP_TEXT(name)                                 \
  Property(                                                      \
      #name, [](InfoUnzip& u) { return u.name(); },              \
      [](InfoUnzip& u, const std::string& value) { u.name(value); })

const ClassRegistrar kInfoUnzipClass(
    ClassBinder<InfoUnzip>("Pelmora.InfoUnzip")
        .PELMORA_UNZIP_FLAG(ExtractOnlyNewer)
        .PELMORA_UNZIP_FLAG(SpaceToUnderscore)
        .PELMORA_UNZIP_FLAG(PromptOverwrite)
        .PELMORA_UNZIP_NUMBER(MessageLevel)
        .PELMORA_UNZIP_FLAG(WriteToStdOut)
        .PELMORA_UNZIP_FLAG(TestZip)
        .PELMORA_UNZIP_NUMBER(ExtractList)
        .PELMORA_UNZIP_FLAG(FreshenExisting)
        .PELMORA_UNZIP_FLAG(DisplayComment)
        .PELMORA_UNZIP_FLAG(HonorDirectories)
        .PELMORA_UNZIP_FLAG(OverWriteFiles)
        .PELMORA_UNZIP_FLAG(ConvertCRtoCRLF)
        .PELMORA_UNZIP_FLAG(Verbose)
        .PELMORA_UNZIP_FLAG(CaseSensitive)
        .PELMORA_UNZIP_NUMBER(Privilege)
        .PELMORA_UNZIP_TEXT(ZipFileName)
        .PELMORA_UNZIP_TEXT(ExtractDir)
        .PELMORA_UNZIP_TEXT(Password)
        .Method(
            "Unzip",
            [](InfoUnzip& u, const std::string& sZipFileName, const std::string& sExtractDir) {
              return u.Unzip(sZipFileName, sExtractDir);
            },
            {Variant(std::string()), Variant(std::string())})
        .Property("ErrNumber", [](InfoUnzip& u) { return u.ErrNumber(); })
        .Property("ErrDescription", [](InfoUnzip& u) { return u.ErrDescription(); }));

#undef PELMORA_UNZIP_FLAG
#undef PELMORA_UNZIP_NUMBER
#undef PELMORA_UNZIP_TEXT

}  // namespace
}  // namespace pelmora
