// _pelmora: the extension behind the Python package `pelmora` (pelmora/__init__.py adds the
// exception class, the Null sentinel and the conveniences).
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>

#include "pelmora/automation/registry.h"
#include "pelmora/common/error.h"
#include "python/py_object.h"
#include "python/py_variant.h"

namespace py = pybind11;

namespace pelmora::python {
namespace {

py::object& ErrorClass() {
  static py::object* error_class = new py::object();  // lives as long as the interpreter
  return *error_class;
}

// Raises pelmora.Error(number, description, source) for a raised pelmora::Error.
void TranslateErrors(std::exception_ptr raised) {
  try {
    if (raised) std::rethrow_exception(raised);
  } catch (const Error& error) {
    if (!ErrorClass()) throw;
    py::object instance = ErrorClass()(error.Number(), error.Description(), error.Source());
    PyErr_SetObject(ErrorClass().ptr(), instance.ptr());
  }
}

Object Create(const std::string& prog_id) {
  ObjectRef ref;
  {
    py::gil_scoped_release release;
    ref = automation::CreateObject(prog_id);
  }
  return Object(std::move(ref));
}

}  // namespace
}  // namespace pelmora::python

PYBIND11_MODULE(_pelmora, module) {
  using namespace pelmora::python;
  module.doc() = "The Pelmora library's late-bound classes (use the package `pelmora`).";
  DefineObject(module);
  module.def("CreateObject", &Create, py::arg("prog_id"),
             "A new object of the class registered as prog_id (ASCII case ignored).");
  module.def("ListClasses", &pelmora::automation::ListClasses,
             "The prog IDs of every class that CreateObject can make.");
  module.def("_set_error_class", [](py::object error_class) { ErrorClass() = std::move(error_class); });
  module.def("_set_null", [](py::object sentinel) { SetNullSentinel(std::move(sentinel)); });
  py::register_exception_translator(&TranslateErrors);
}
