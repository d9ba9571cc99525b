// Creating objects by prog ID, and calling members by name.
//
//   ObjectRef socket = CreateObject("pelmora.winsock");        // prog IDs ignore ASCII case
//   SetProperty(socket, "RemoteHost", Variant("127.0.0.1"));
//   std::vector<Variant> args;
//   CallByName(socket, "Connect", CallKind::kMethod, args);
//
// Classes register themselves with a ClassRegistrar (class_binder.h) in their own folder.
#ifndef PELMORA_AUTOMATION_REGISTRY_H_
#define PELMORA_AUTOMATION_REGISTRY_H_

#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/automation/dispatch.h"
#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::automation {

// Makes one new object of a registered class.
using ObjectFactory = std::function<ObjectRef()>;

// Registers `factory` under `prog_id` (compared without ASCII case), replacing an earlier
// registration of the same prog ID. Thread-safe.
PELMORA_API void RegisterClass(std::string prog_id, ObjectFactory factory);

// A new object of the class registered as `prog_id`. Raises 429 (the run-time text "Component
// can't create object or return reference to this object") when no class has that prog ID, and
// whatever the class's construction raises (with the prog ID as source when it gives none).
PELMORA_API ObjectRef CreateObject(std::string_view prog_id);

// The registered prog IDs, as registered, sorted without regard to ASCII case.
PELMORA_API std::vector<std::string> ListClasses();

// Calls `name` on `object` as Dispatch::Invoke does. Raises 91 "Object variable or With block
// variable not set" when `object` is Nothing.
PELMORA_API Variant CallByName(const ObjectRef& object, std::string_view name, CallKind kind,
                               std::span<Variant> args = {});

// CallByName with arguments given in place, by value: by-reference changes are dropped.
//   CallByName(socket, "SetSocketOption", CallKind::kMethod, {65535, 8, 1});
PELMORA_API Variant CallByName(const ObjectRef& object, std::string_view name, CallKind kind,
                               std::initializer_list<Variant> args);

// Reads property `name` (no arguments). Raises as CallByName.
PELMORA_API Variant GetProperty(const ObjectRef& object, std::string_view name);

// Assigns `value` to property `name`: a Set when `value` is an object reference, else a Let.
// Raises as CallByName.
PELMORA_API void SetProperty(const ObjectRef& object, std::string_view name, Variant value);

}  // namespace pelmora::automation

#endif  // PELMORA_AUTOMATION_REGISTRY_H_
