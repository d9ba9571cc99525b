// The configuration an account worker gets (declared in config.h).
#include <sstream>
#include <toml++/toml.h>

#include "pelmorad/config.h"

namespace pelmorad {

std::string WorkerConfigText(std::string_view text, const std::string& account) {
  toml::table root = toml::parse(text);
  if (toml::table* accounts = root["accounts"].as_table()) {
    for (auto entry = accounts->begin(); entry != accounts->end();) {
      if (entry->first.str() != account) {
        entry = accounts->erase(entry);
        continue;
      }
      if (toml::table* fields = entry->second.as_table()) {
        fields->insert_or_assign("password", kWorkerPasswordHash);
      }
      ++entry;
    }
  }
  std::ostringstream out;
  out << root;
  return out.str();
}

}  // namespace pelmorad
