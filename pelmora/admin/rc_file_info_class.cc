// The late-bound face of RCFileInfo ("Pelmora.RCFileInfo", creatable: eight read/write
// properties) and of the listing collection GetFolderFiles returns (not creatable: Count and
// Item(i), 1-based as collections are).
#include "pelmora/admin/rc_file_info.h"
#include "pelmora/automation/class_binder.h"

namespace pelmora::admin {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;
using I = RCFileInfo;

const ClassRegistrar kRCFileInfoClass(
    ClassBinder<I>("Pelmora.RCFileInfo")
        .Property("FileAttribues", &I::FileAttribues, &I::SetFileAttribues)
        .Property("CreationTime", &I::CreationTime, &I::SetCreationTime)
        .Property("LastAccessTime", &I::LastAccessTime, &I::SetLastAccessTime)
        .Property("LastWriteTime", &I::LastWriteTime, &I::SetLastWriteTime)
        .Property("FileSize", &I::FileSize, &I::SetFileSize)
        .Property("FileName", &I::FileName, &I::SetFileName)
        .Property("FullPathName", &I::FullPathName, &I::SetFullPathName)
        .Property("ParentPath", &I::ParentPath, &I::SetParentPath));

const ClassRegistrar kRCFileInfoCollectionClass(
    ClassBinder<RCFileInfoCollection>("Pelmora.RCFileInfoCollection")
        .Property("Count", &RCFileInfoCollection::Count)
        .Method("Item", &RCFileInfoCollection::Item),
    nullptr);

}  // namespace
}  // namespace pelmora::admin
