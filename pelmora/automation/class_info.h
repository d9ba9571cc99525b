// The member table of a class bound for late binding, and the Dispatch objects built on it.
//
// ClassBinder (class_binder.h) fills a ClassInfo; BoundObject<T> is the Dispatch that an object
// of T is reached through. Wrap and Unwrap move between a typed object and its Dispatch:
//
//   ObjectRef ref = Wrap(std::make_shared<WinSock>());   // needs a registered binding of WinSock
//   std::shared_ptr<WinSock> socket = Unwrap<WinSock>(ref);
#ifndef PELMORA_AUTOMATION_CLASS_INFO_H_
#define PELMORA_AUTOMATION_CLASS_INFO_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <typeindex>
#include <utility>
#include <vector>

#include "pelmora/automation/dispatch.h"
#include "pelmora/common/dictionary.h"
#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::automation {

class EventSource;

// One way of reaching a member: a call on the object (passed untyped) with the checked number of
// arguments.
struct PELMORA_API Accessor {
  std::function<Variant(void* object, std::span<Variant> args)> call;
  size_t min_args = 0;
  size_t max_args = 0;
  uint64_t by_reference = 0;  // bit i set: argument i is passed by reference
};

// A member: a method (get only) or a property (get and/or let).
struct PELMORA_API BoundMember {
  std::string name;
  bool is_method = false;
  Accessor get;
  Accessor let;
};

// The late-bound view of one C++ class: its prog ID, members and event source.
class PELMORA_API ClassInfo {
 public:
  explicit ClassInfo(std::string prog_id) : prog_id_(std::move(prog_id)) {}

  const std::string& ProgId() const { return prog_id_; }

  // Adds or replaces a member (names compare without ASCII case).
  void AddMember(BoundMember member);

  // Sets how to find the event source of an object of the class.
  void SetEvents(std::function<EventSource&(void* object)> events) { events_ = std::move(events); }

  // Calls a member on `object` as Dispatch::Invoke describes, raising errors with this class's
  // prog ID as their source when they have none.
  Variant Invoke(void* object, std::string_view name, CallKind kind, std::span<Variant> args) const;

  // Connects or disconnects an event sink of `object`. ConnectEvents raises 438 when the class
  // has no event source.
  uint32_t ConnectEvents(void* object, std::shared_ptr<EventSink> sink) const;
  void DisconnectEvents(void* object, uint32_t cookie) const;

  // The members in declaration order.
  std::vector<MemberInfo> Members() const;

 private:
  Variant Call(void* object, std::string_view name, CallKind kind, std::span<Variant> args) const;

  std::string prog_id_;
  OrderedDictionary<BoundMember> members_;
  std::function<EventSource&(void*)> events_;
};

// Records the binding of the C++ type `type`, used to wrap objects of it returned by members.
PELMORA_API void RegisterBoundType(std::type_index type, std::shared_ptr<const ClassInfo> info);

// The binding of `type`, or nullptr when the type has none.
PELMORA_API std::shared_ptr<const ClassInfo> FindBoundType(std::type_index type);

// The Dispatch of one object of a bound class; shares ownership of the object.
template <class T>
class BoundObject : public Dispatch {
 public:
  BoundObject(std::shared_ptr<T> object, std::shared_ptr<const ClassInfo> info)
      : object_(std::move(object)), info_(std::move(info)) {}

  Variant Invoke(std::string_view name, CallKind kind, std::span<Variant> args) override {
    return info_->Invoke(object_.get(), name, kind, args);
  }
  std::string ProgId() const override { return info_->ProgId(); }
  uint32_t ConnectEvents(std::shared_ptr<EventSink> sink) override {
    return info_->ConnectEvents(object_.get(), std::move(sink));
  }
  void DisconnectEvents(uint32_t cookie) override {
    info_->DisconnectEvents(object_.get(), cookie);
  }
  std::vector<MemberInfo> Members() const override { return info_->Members(); }

  const std::shared_ptr<T>& Object() const { return object_; }

 private:
  std::shared_ptr<T> object_;
  std::shared_ptr<const ClassInfo> info_;
};

// Raises 430 "Class doesn't support Automation": the type has no binding.
[[noreturn]] PELMORA_API void RaiseNotBound();

// The Dispatch of `object` through the registered binding of T; Nothing for a null pointer.
// Raises 430 when T has no registered binding.
template <class T>
ObjectRef Wrap(std::shared_ptr<T> object) {
  if (object == nullptr) return nullptr;
  auto info = FindBoundType(std::type_index(typeid(T)));
  if (info == nullptr) RaiseNotBound();
  return std::make_shared<BoundObject<T>>(std::move(object), std::move(info));
}

// The typed object behind `ref`, or nullptr when `ref` is Nothing or not a bound T.
template <class T>
std::shared_ptr<T> Unwrap(const ObjectRef& ref) {
  auto* bound = dynamic_cast<BoundObject<T>*>(ref.get());
  return bound == nullptr ? nullptr : bound->Object();
}

}  // namespace pelmora::automation

#endif  // PELMORA_AUTOMATION_CLASS_INFO_H_
