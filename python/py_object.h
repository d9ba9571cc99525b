// pelmora.Object: a Python face for any late-bound object. Attribute reads call property gets
// (or give a callable for methods and indexed properties), attribute assignments call property
// lets (sets for objects), and `on(event, callback)` connects a Python callable to an event.
#ifndef PYTHON_PY_OBJECT_H_
#define PYTHON_PY_OBJECT_H_

#include <pybind11/pybind11.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/automation/dispatch.h"
#include "pelmora/common/variant.h"

namespace pelmora::python {

class Object {
 public:
  explicit Object(ObjectRef ref);

  const ObjectRef& ref() const { return ref_; }
  std::string ProgId() const { return ref_->ProgId(); }

  // The member called `name` (without regard to ASCII case), if the object describes it.
  std::optional<automation::MemberInfo> FindMember(std::string_view name) const;

  // Attribute read: a property's value, or a callable for a method or an indexed property.
  // Raises AttributeError for a member the object does not have.
  pybind11::object GetAttribute(const std::string& name) const;

  // Attribute assignment: a property let, or a property set when `value` is an object.
  void SetAttribute(const std::string& name, const pybind11::handle& value) const;

  // Calls `name` as `kind` with `args` converted, the GIL released while the member runs. When
  // the member takes arguments by reference, returns a tuple of the result and the new values of
  // those arguments in order; otherwise the result alone.
  pybind11::object Call(const std::string& name, automation::CallKind kind,
                        const pybind11::args& args) const;

  // Connects `callback` to the event `event_name` (ASCII case ignored); returns a cookie for Off.
  // The callback receives the event's arguments by value, on the thread that raised the event.
  uint32_t On(const std::string& event_name, pybind11::object callback) const;
  void Off(uint32_t cookie) const;

  // The member names in declaration order.
  std::vector<std::string> MemberNames() const;

 private:
  ObjectRef ref_;
  std::vector<automation::MemberInfo> members_;
};

// Registers pelmora.Object on `module`.
void DefineObject(pybind11::module_& module);

}  // namespace pelmora::python

#endif  // PYTHON_PY_OBJECT_H_
