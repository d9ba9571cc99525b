// Late binding: objects whose members are called by name at run time.
//
// A Dispatch is an object that automation callers (scripts, the command-line tool, the Python
// binding) reach by member name. Arguments travel as Variants in their natural order (first
// argument first); a member that takes an argument by reference writes its new value back into
// the caller's Variant:
//
//   std::vector<Variant> args{Variant(), Variant(100)};
//   socket->Invoke("GetData", CallKind::kMethod, args);  // args[0] now holds the data
//
// Typed C++ classes become Dispatch objects through ClassBinder (class_binder.h); CreateObject
// (registry.h) makes one from its prog ID.
#ifndef PELMORA_AUTOMATION_DISPATCH_H_
#define PELMORA_AUTOMATION_DISPATCH_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::automation {

// How a member is reached: called as a method, read as a property, assigned a value (Let) or
// assigned an object reference (Set). For Let and Set the new value is the last argument, after
// any index arguments.
enum class CallKind { kMethod, kPropertyGet, kPropertyLet, kPropertySet };

// Receives the events of the objects it is connected to. Arguments are in declaration order;
// an event argument passed by reference may be changed by the sink, and the raiser sees the
// change when the call returns. Called synchronously on the raiser's thread.
class PELMORA_API EventSink {
 public:
  virtual ~EventSink() = default;
  virtual void OnEvent(std::string_view event_name, std::span<Variant> args) = 0;
};

// An EventSink that forwards to `handler`.
PELMORA_API std::shared_ptr<EventSink> MakeEventSink(
    std::function<void(std::string_view event_name, std::span<Variant> args)> handler);

// What a member is, for tools and bindings that must know before calling it (a method gives a
// callable, a property a value). Argument counts are those of a call or a read.
struct PELMORA_API MemberInfo {
  std::string name;
  bool is_method = false;
  bool readable = false;  // a property that can be read, or a method
  bool writable = false;  // a property that can be assigned
  size_t min_args = 0;
  size_t max_args = 0;
  uint64_t by_reference = 0;  // bit i set: the member writes argument i back (by reference)
};

// An object whose members are called by name.
class PELMORA_API Dispatch {
 public:
  virtual ~Dispatch() = default;

  // Calls member `name` (compared without ASCII case) as `kind` with `args`, writing the values
  // of by-reference arguments back into `args`, and returns the result (Empty for a member
  // without one). Raises pelmora::Error: 438 "Object doesn't support this property or method"
  // for an unknown member, 450 "Wrong number of arguments or invalid property assignment" for a
  // wrong argument count or an assignment to a read-only member, 13 "Type mismatch" (or 6
  // "Overflow") when an argument cannot be converted, and the member's own errors. The error's
  // source is the object's prog ID unless the member gave one. Blocks as long as the member does.
  virtual Variant Invoke(std::string_view name, CallKind kind, std::span<Variant> args) = 0;

  // The name the object's class is created by ("Pelmora.WinSock").
  virtual std::string ProgId() const = 0;

  // Connects `sink` to the object's events and returns a cookie for DisconnectEvents. Raises
  // 438 when the object raises no events.
  virtual uint32_t ConnectEvents(std::shared_ptr<EventSink> sink);

  // Disconnects the sink of `cookie`; an unknown cookie is ignored.
  virtual void DisconnectEvents(uint32_t cookie);

  // The members in declaration order, names as declared; empty when the object does not say.
  virtual std::vector<MemberInfo> Members() const;

  // The names of Members().
  std::vector<std::string> MemberNames() const;
};

}  // namespace pelmora::automation

#endif  // PELMORA_AUTOMATION_DISPATCH_H_
