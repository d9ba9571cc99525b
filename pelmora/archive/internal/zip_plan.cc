// Expanding names into plan items.
#include "pelmora/archive/internal/zip_plan.h"

#include <dirent.h>
#include <glob.h>

#include <algorithm>
#include <memory>
#include <unordered_set>

namespace pelmora::archive::internal {
namespace {

constexpr int kMaxDepth = 256;

class Planner {
 public:
  explicit Planner(const PlanRules& rules) : rules_(rules) {}

  // Adds the file or folder at `path` stored as `relative`; false when it does not exist.
  bool Add(const std::string& path, const std::string& relative, int depth) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return false;
    if (S_ISDIR(st.st_mode)) {
      AddFolder(path, relative, st, depth);
      return true;
    }
    if (!S_ISREG(st.st_mode)) return true;
    Push(PlanItem{path, StoredName(relative, rules_.junk_folders), st, false});
    return true;
  }

  std::vector<PlanItem> Take() { return std::move(items_); }

 private:
  void Push(PlanItem item) {
    if (item.name.empty() || item.name == "/" || !seen_.insert(item.name).second) return;
    items_.push_back(std::move(item));
  }

  void AddFolder(const std::string& path, const std::string& relative, const struct stat& st,
                 int depth) {
    std::string name = StoredName(relative, false);
    if (rules_.folder_entries && !rules_.junk_folders && !name.empty()) {
      Push(PlanItem{path, name + "/", st, true});
    }
    if (!rules_.recurse || depth >= kMaxDepth) return;
    for (const std::string& child : SortedChildren(path)) {
      std::string child_relative = relative.empty() || relative == "." ? child
                                                                       : relative + "/" + child;
      Add(path + "/" + child, child_relative, depth + 1);
    }
  }

  static std::vector<std::string> SortedChildren(const std::string& path) {
    std::vector<std::string> children;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), &closedir);
    if (!dir) return children;
    while (struct dirent* item = readdir(dir.get())) {
      std::string name = item->d_name;
      if (name != "." && name != "..") children.push_back(std::move(name));
    }
    std::sort(children.begin(), children.end());
    return children;
  }

  const PlanRules& rules_;
  std::vector<PlanItem> items_;
  std::unordered_set<std::string> seen_;
};

bool HasWildcard(std::string_view name) {
  return name.find_first_of("*?[") != std::string_view::npos;
}

std::string Under(const PlanRules& rules, const std::string& name) {
  if (rules.root.empty() || (!name.empty() && name.front() == '/')) return name;
  return rules.root + "/" + name;
}

std::string RelativeToRoot(const PlanRules& rules, std::string name) {
  std::replace(name.begin(), name.end(), '\\', '/');
  std::string prefix = rules.root + "/";
  if (!rules.root.empty() && name.rfind(prefix, 0) == 0) name.erase(0, prefix.size());
  return name;
}

}  // namespace

std::string StoredName(std::string_view name, bool junk_folders) {
  std::string out(name);
  std::replace(out.begin(), out.end(), '\\', '/');
  for (;;) {
    if (!out.empty() && out.front() == '/') out.erase(0, 1);
    else if (out.rfind("./", 0) == 0) out.erase(0, 2);
    else break;
  }
  while (!out.empty() && out.back() == '/') out.pop_back();
  if (out == ".") out.clear();
  if (junk_folders) {
    size_t slash = out.rfind('/');
    if (slash != std::string::npos) out.erase(0, slash + 1);
  }
  return out;
}

std::vector<PlanItem> BuildPlan(const std::vector<std::string>& names, const PlanRules& rules,
                                std::vector<std::string>& unmatched) {
  Planner planner(rules);
  for (const std::string& given : names) {
    std::string relative = RelativeToRoot(rules, given);
    std::string path = Under(rules, relative);
    if (!HasWildcard(relative)) {
      if (!planner.Add(path, relative, 0)) unmatched.push_back(given);
      continue;
    }
    glob_t found{};
    bool any = glob(path.c_str(), 0, nullptr, &found) == 0 && found.gl_pathc > 0;
    for (size_t i = 0; any && i < found.gl_pathc; ++i) {
      std::string match = found.gl_pathv[i];
      planner.Add(match, RelativeToRoot(rules, match), 0);
    }
    globfree(&found);
    if (!any) unmatched.push_back(given);
  }
  return planner.Take();
}

}  // namespace pelmora::archive::internal
