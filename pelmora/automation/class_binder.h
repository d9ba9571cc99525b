// Declarative late binding of a typed C++ class, without copying its logic.
//
//   const automation::ClassRegistrar kWinSockClass(
//       automation::ClassBinder<WinSock>("Pelmora.WinSock")
//           .Property("RemoteHost", &WinSock::RemoteHost, &WinSock::SetRemoteHost)
//           .Property("Version", &WinSock::Version)                  // read-only
//           .Method("Connect", &WinSock::Connect)
//           .Method("GetData", &WinSock::GetData, {Variant(0)}));    // last argument optional
//
// Argument and result conversions are deduced from the member's signature (see conversion.h);
// parameters that are non-const lvalue references are by reference and are written back into
// the caller's Variants. Defaults fill missing trailing arguments. A callable taking `T&` first
// may stand in for a member function. Members are found without regard to ASCII case.
//
// Registration: a ClassRegistrar at namespace scope in the class's own folder registers the
// class when libpelmora.so is loaded (a shared library's static objects are all constructed at
// load, unlike a static archive's, whose unreferenced objects the linker drops).
#ifndef PELMORA_AUTOMATION_CLASS_BINDER_H_
#define PELMORA_AUTOMATION_CLASS_BINDER_H_

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <typeindex>
#include <utility>
#include <vector>

#include "pelmora/automation/class_info.h"
#include "pelmora/automation/dispatch.h"
#include "pelmora/automation/event_source.h"
#include "pelmora/automation/invoker.h"
#include "pelmora/automation/registry.h"
#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::automation {

template <class T>
class ClassBinder {
 public:
  // Starts the binding of T under `prog_id` ("Pelmora.WinSock").
  explicit ClassBinder(std::string prog_id)
      : info_(std::make_shared<ClassInfo>(std::move(prog_id))) {}

  // A method: `fn` is a member function of T or a callable taking T& first. `defaults` are the
  // values of the last defaults.size() parameters when the caller leaves them out. A method may
  // also be read like a property. Throws std::invalid_argument for more defaults than
  // parameters (a binding mistake, found when the library loads).
  template <class F>
  ClassBinder& Method(std::string name, F fn, std::vector<Variant> defaults = {}) {
    BoundMember member{name, true, internal::MakeAccessor<T>(name, fn, std::move(defaults)), {}};
    info_->AddMember(std::move(member));
    return *this;
  }

  // A read-only property; `getter` may take index arguments. Assigning raises 450. A data member
  // pointer instead is a read/write property: Property("FileName", &Info::FileName).
  template <class G>
  ClassBinder& Property(std::string name, G getter) {
    if constexpr (std::is_member_object_pointer_v<G>) {
      return Property(
          name, [getter](T& self) { return self.*getter; },
          [getter](T& self, const FieldType<G>& value) { self.*getter = value; });
    } else {
      info_->AddMember({name, false, internal::MakeAccessor<T>(name, getter, {}), {}});
      return *this;
    }
  }

  // A read/write property. The setter takes the getter's index arguments and then the new value;
  // it serves both Let and Set assignments.
  template <class G, class S>
  ClassBinder& Property(std::string name, G getter, S setter) {
    info_->AddMember({name, false, internal::MakeAccessor<T>(name, getter, {}),
                      internal::MakeAccessor<T>(name, setter, {})});
    return *this;
  }

  // The object's events: `source` is a data member of type EventSource or a member function
  // returning EventSource&.
  template <class E>
  ClassBinder& Events(E source) {
    info_->SetEvents([source](void* object) -> EventSource& {
      return std::invoke(source, *static_cast<T*>(object));
    });
    return *this;
  }

  // The finished member table.
  std::shared_ptr<const ClassInfo> Info() const { return info_; }

 private:
  template <class M>
  struct FieldOf;
  template <class F, class C>
  struct FieldOf<F C::*> {
    using type = F;
  };
  template <class M>
  using FieldType = typename FieldOf<M>::type;

  std::shared_ptr<ClassInfo> info_;
};

// Makes the objects of a bound class.
template <class T>
using ObjectMaker = std::function<std::shared_ptr<T>()>;

// Registers a binding when constructed: the type's binding (so members may return objects of it)
// and, when the class is creatable, its prog ID for CreateObject.
class PELMORA_API ClassRegistrar {
 public:
  // Creatable through the default constructor when T has one, otherwise not creatable.
  template <class T>
  explicit ClassRegistrar(const ClassBinder<T>& binder) {
    if constexpr (std::is_default_constructible_v<T>) {
      Register<T>(binder, [] { return std::make_shared<T>(); });
    } else {
      Register<T>(binder, nullptr);
    }
  }

  // Creatable through `maker`; not creatable (only returned by other objects) when it is empty.
  template <class T>
  ClassRegistrar(const ClassBinder<T>& binder, std::type_identity_t<ObjectMaker<T>> maker) {
    Register<T>(binder, std::move(maker));
  }

 private:
  template <class T>
  static void Register(const ClassBinder<T>& binder, ObjectMaker<T> maker) {
    std::shared_ptr<const ClassInfo> info = binder.Info();
    RegisterBoundType(std::type_index(typeid(T)), info);
    if (!maker) return;
    RegisterClass(info->ProgId(), [maker = std::move(maker), info]() -> ObjectRef {
      return std::make_shared<BoundObject<T>>(maker(), info);
    });
  }
};

}  // namespace pelmora::automation

#endif  // PELMORA_AUTOMATION_CLASS_BINDER_H_
