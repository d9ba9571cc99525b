#include "pelmora/automation/class_info.h"

#include <map>
#include <mutex>
#include <new>

#include "pelmora/automation/event_source.h"
#include "pelmora/common/error.h"

namespace pelmora::automation {
namespace {

struct TypeTable {
  std::mutex mutex;
  std::map<std::type_index, std::shared_ptr<const ClassInfo>> types;
};

// Built on first use, so registrars in any translation unit may run first.
TypeTable& Types() {
  static TypeTable* table = new TypeTable();
  return *table;
}

}  // namespace

void ClassInfo::AddMember(BoundMember member) {
  std::string name = member.name;
  members_.SetItem(name, std::move(member));
}

Variant ClassInfo::Call(void* object, std::string_view name, CallKind kind,
                        std::span<Variant> args) const {
  const BoundMember* member = members_.Find(name);
  if (member == nullptr) throw RuntimeError(438);
  bool assigns = kind == CallKind::kPropertyLet || kind == CallKind::kPropertySet;
  const Accessor& accessor = assigns ? member->let : member->get;
  if (!accessor.call) throw RuntimeError(assigns ? 450 : 438);
  if (args.size() < accessor.min_args || args.size() > accessor.max_args) {
    throw RuntimeError(450);
  }
  return accessor.call(object, args);
}

Variant ClassInfo::Invoke(void* object, std::string_view name, CallKind kind,
                          std::span<Variant> args) const {
  try {
    return Call(object, name, kind, args);
  } catch (const Error& e) {
    if (!e.Source().empty()) throw;
    throw Error(e.Number(), e.Description(), prog_id_);
  } catch (const std::bad_alloc&) {
    throw RuntimeError(7, prog_id_);
  } catch (const std::exception&) {
    throw RuntimeError(440, prog_id_);
  }
}

uint32_t ClassInfo::ConnectEvents(void* object, std::shared_ptr<EventSink> sink) const {
  if (!events_) throw RuntimeError(438, prog_id_);
  return events_(object).Connect(std::move(sink));
}

void ClassInfo::DisconnectEvents(void* object, uint32_t cookie) const {
  if (events_) events_(object).Disconnect(cookie);
}

std::vector<MemberInfo> ClassInfo::Members() const {
  std::vector<MemberInfo> members;
  for (const auto& [key, m] : members_) {
    members.push_back(MemberInfo{m.name, m.is_method, static_cast<bool>(m.get.call),
                                 static_cast<bool>(m.let.call), m.get.min_args, m.get.max_args,
                                 m.get.by_reference});
  }
  return members;
}

void RegisterBoundType(std::type_index type, std::shared_ptr<const ClassInfo> info) {
  TypeTable& table = Types();
  std::lock_guard lock(table.mutex);
  table.types[type] = std::move(info);
}

std::shared_ptr<const ClassInfo> FindBoundType(std::type_index type) {
  TypeTable& table = Types();
  std::lock_guard lock(table.mutex);
  auto it = table.types.find(type);
  return it == table.types.end() ? nullptr : it->second;
}

void RaiseNotBound() { throw RuntimeError(430); }

}  // namespace pelmora::automation
