// Conversions between Variants and Python values for the Python module.
//
//   Empty <-> None, Null <-> pelmora.Null, Integer/Long/Byte -> int, Single/Double -> float,
//   Currency <-> decimal.Decimal, Date <-> datetime.datetime (naive, local time), String <-> str,
//   Boolean <-> bool, byte array <-> bytes, array <-> list, object <-> pelmora.Object
//   (Nothing -> None).
// Python ints become Long when they fit 32 bits and Double otherwise; tuples become arrays too.
#ifndef PYTHON_PY_VARIANT_H_
#define PYTHON_PY_VARIANT_H_

#include <pybind11/pybind11.h>

#include "pelmora/common/variant.h"

namespace pelmora::python {

// The Python value of `value`. Needs the GIL.
pybind11::object ToPython(const Variant& value);

// The Variant of a Python value. Raises TypeError for a value no Variant can hold. Needs the GIL.
Variant FromPython(const pybind11::handle& value);

// The sentinel object that stands for Null (set once when the module loads).
void SetNullSentinel(pybind11::object sentinel);

}  // namespace pelmora::python

#endif  // PYTHON_PY_VARIANT_H_
