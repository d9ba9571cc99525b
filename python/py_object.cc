#include "python/py_object.h"

#include <pybind11/stl.h>

#include <span>
#include <utility>

#include "pelmora/automation/registry.h"
#include "pelmora/common/dictionary.h"
#include "python/py_variant.h"

namespace py = pybind11;

namespace pelmora::python {
namespace {

using automation::CallKind;
using automation::MemberInfo;

// Runs `call` with the GIL released (late-bound members may block on the network or a process).
template <class F>
auto WithoutGil(F&& call) {
  py::gil_scoped_release release;
  return call();
}

std::vector<Variant> ConvertArguments(const py::args& args) {
  std::vector<Variant> converted;
  converted.reserve(args.size());
  for (const py::handle arg : args) converted.push_back(FromPython(arg));
  return converted;
}

// The result, or the result followed by the by-reference arguments that were given.
py::object PackResult(const Variant& result, const std::vector<Variant>& args, uint64_t by_ref) {
  py::list by_ref_values;
  for (size_t i = 0; i < args.size() && i < 64; ++i) {
    if (by_ref & (uint64_t{1} << i)) by_ref_values.append(ToPython(args[i]));
  }
  if (by_ref_values.empty()) return ToPython(result);
  py::list all;
  all.append(ToPython(result));
  for (const py::handle value : by_ref_values) all.append(value);
  return py::tuple(all);
}

// Forwards one named event to a Python callable, taking the GIL for the call. The callable is
// released with the GIL held, whichever thread drops the last reference to the sink.
class PythonEventSink : public automation::EventSink {
 public:
  PythonEventSink(std::string event_name, py::object callback)
      : event_name_(FoldKeyCase(event_name)), callback_(std::move(callback)) {}
  ~PythonEventSink() override {
    if (!Py_IsInitialized()) {
      callback_.release();  // the interpreter is gone: nothing left to release it into
      return;
    }
    py::gil_scoped_acquire acquire;
    callback_ = py::object();
  }

  void OnEvent(std::string_view event_name, std::span<Variant> args) override {
    if (FoldKeyCase(event_name) != event_name_) return;
    py::gil_scoped_acquire acquire;
    py::list values;
    for (const Variant& arg : args) values.append(ToPython(arg));
    callback_(*py::tuple(values));
  }

 private:
  std::string event_name_;
  py::object callback_;
};

}  // namespace

Object::Object(ObjectRef ref) : ref_(std::move(ref)), members_(ref_->Members()) {}

std::optional<MemberInfo> Object::FindMember(std::string_view name) const {
  std::string folded = FoldKeyCase(name);
  for (const MemberInfo& member : members_) {
    if (FoldKeyCase(member.name) == folded) return member;
  }
  return std::nullopt;
}

py::object Object::GetAttribute(const std::string& name) const {
  std::optional<MemberInfo> member = FindMember(name);
  if (!member && !members_.empty()) {
    throw py::attribute_error("'" + ProgId() + "' object has no member '" + name + "'");
  }
  bool callable = !member || member->is_method || member->min_args > 0;
  if (callable) {
    CallKind kind = member && !member->is_method ? CallKind::kPropertyGet : CallKind::kMethod;
    Object self = *this;
    return py::cpp_function([self, name, kind](const py::args& args) {
      return self.Call(name, kind, args);
    }, py::name(name.c_str()));
  }
  return Call(name, CallKind::kPropertyGet, py::args());
}

void Object::SetAttribute(const std::string& name, const py::handle& value) const {
  std::vector<Variant> args{FromPython(value)};
  CallKind kind = args[0].IsObject() ? CallKind::kPropertySet : CallKind::kPropertyLet;
  WithoutGil([&] { return ref_->Invoke(name, kind, args); });
}

py::object Object::Call(const std::string& name, CallKind kind, const py::args& args) const {
  std::vector<Variant> converted = ConvertArguments(args);
  Variant result = WithoutGil([&] { return ref_->Invoke(name, kind, converted); });
  std::optional<MemberInfo> member = FindMember(name);
  return PackResult(result, converted, member ? member->by_reference : 0);
}

uint32_t Object::On(const std::string& event_name, py::object callback) const {
  if (!PyCallable_Check(callback.ptr())) throw py::type_error("the event handler must be callable");
  return ref_->ConnectEvents(std::make_shared<PythonEventSink>(event_name, std::move(callback)));
}

void Object::Off(uint32_t cookie) const { ref_->DisconnectEvents(cookie); }

std::vector<std::string> Object::MemberNames() const {
  std::vector<std::string> names;
  for (const MemberInfo& member : members_) names.push_back(member.name);
  return names;
}

void DefineObject(py::module_& module) {
  py::class_<Object>(module, "Object")
      .def("__getattr__", &Object::GetAttribute)
      .def("__setattr__", &Object::SetAttribute)
      .def("__dir__", &Object::MemberNames)
      .def("__repr__", [](const Object& o) { return "<pelmora.Object " + o.ProgId() + ">"; })
      .def("__eq__", [](const Object& a, const Object& b) { return a.ref() == b.ref(); })
      .def("__hash__", [](const Object& o) { return std::hash<const void*>()(o.ref().get()); })
      .def("on", &Object::On, py::arg("event"), py::arg("callback"))
      .def("off", &Object::Off, py::arg("cookie"))
      .def("_call", [](const Object& o, const std::string& name, const py::args& args) {
        return o.Call(name, CallKind::kMethod, args);
      })
      .def("_has_member", [](const Object& o, const std::string& name) {
        return o.FindMember(name).has_value();
      })
      .def_property_readonly("_prog_id", &Object::ProgId);
}

}  // namespace pelmora::python
