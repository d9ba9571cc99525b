#include "pelmora/automation/registry.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "pelmora/common/dictionary.h"
#include "pelmora/common/error.h"

namespace pelmora::automation {
namespace {

struct ClassTable {
  std::mutex mutex;
  OrderedDictionary<ObjectFactory> classes;
};

// Built on first use, so registrars in any translation unit may run first.
ClassTable& Classes() {
  static ClassTable* table = new ClassTable();
  return *table;
}

}  // namespace

void RegisterClass(std::string prog_id, ObjectFactory factory) {
  ClassTable& table = Classes();
  std::lock_guard lock(table.mutex);
  table.classes.SetItem(prog_id, std::move(factory));
}

ObjectRef CreateObject(std::string_view prog_id) {
  ObjectFactory factory;
  {
    ClassTable& table = Classes();
    std::lock_guard lock(table.mutex);
    const ObjectFactory* found = table.classes.Find(prog_id);
    if (found == nullptr) throw RuntimeError(429);
    factory = *found;
  }
  try {
    return factory();
  } catch (const Error& e) {
    if (!e.Source().empty()) throw;
    throw Error(e.Number(), e.Description(), std::string(prog_id));
  }
}

std::vector<std::string> ListClasses() {
  std::vector<std::string> names;
  {
    ClassTable& table = Classes();
    std::lock_guard lock(table.mutex);
    names = table.classes.Keys();
  }
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return FoldKeyCase(a) < FoldKeyCase(b);
  });
  return names;
}

Variant CallByName(const ObjectRef& object, std::string_view name, CallKind kind,
                   std::span<Variant> args) {
  if (object == nullptr) throw RuntimeError(91);
  return object->Invoke(name, kind, args);
}

Variant CallByName(const ObjectRef& object, std::string_view name, CallKind kind,
                   std::initializer_list<Variant> args) {
  std::vector<Variant> copies(args);
  return CallByName(object, name, kind, std::span<Variant>(copies));
}

Variant GetProperty(const ObjectRef& object, std::string_view name) {
  return CallByName(object, name, CallKind::kPropertyGet);
}

void SetProperty(const ObjectRef& object, std::string_view name, Variant value) {
  CallKind kind = value.IsObject() ? CallKind::kPropertySet : CallKind::kPropertyLet;
  CallByName(object, name, kind, std::span<Variant>(&value, 1));
}

}  // namespace pelmora::automation
