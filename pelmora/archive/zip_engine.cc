// RunZip: one ZipRun per call.
#include "pelmora/archive/zip_engine.h"

#include "pelmora/archive/internal/zip_run.h"

namespace pelmora::archive {

int RunZip(const ZipOptions& options, const std::string& zip_file_name,
           const std::vector<std::string>& names, const ZipCallbacks& callbacks,
           const ZipTuning& tuning) {
  internal::ZipRun run(options, callbacks, tuning, zip_file_name);
  return run.Run(names);
}

}  // namespace pelmora::archive
