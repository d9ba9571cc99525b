#include "python/py_variant.h"

#include <pybind11/stl.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/common/date.h"
#include "python/py_object.h"

namespace py = pybind11;

namespace pelmora::python {
namespace {

py::object& NullSentinel() {
  static py::object* sentinel = new py::object();  // lives as long as the interpreter
  return *sentinel;
}

py::module_ Import(const char* name) { return py::module_::import(name); }

py::object DateToPython(const Date& date) {
  CivilTime civil = date.ToCivil();
  return Import("datetime").attr("datetime")(civil.year, civil.month, civil.day, civil.hour,
                                             civil.minute, civil.second);
}

Variant DateFromPython(const py::handle& value) {
  CivilTime civil;
  civil.year = value.attr("year").cast<int>();
  civil.month = value.attr("month").cast<int>();
  civil.day = value.attr("day").cast<int>();
  if (py::hasattr(value, "hour")) {
    civil.hour = value.attr("hour").cast<int>();
    civil.minute = value.attr("minute").cast<int>();
    civil.second = value.attr("second").cast<int>();
  }
  std::optional<Date> date = Date::FromCivil(civil);
  if (!date) throw py::value_error("date out of the range a Date can hold");
  return Variant(*date);
}

py::object CurrencyToPython(Currency currency) {
  return Import("decimal").attr("Decimal")(currency.scaled).attr("scaleb")(-4);
}

Variant CurrencyFromPython(const py::handle& value) {
  py::object scaled = value.attr("scaleb")(4).attr("to_integral_value")();
  return Variant(Currency{scaled.cast<int64_t>()});
}

py::object ArrayToPython(const VariantArray& array) {
  py::list list;
  for (const Variant& item : array.items) list.append(ToPython(item));
  return list;
}

Variant ArrayFromPython(const py::sequence& sequence) {
  VariantArray array;
  array.items.reserve(sequence.size());
  for (const py::handle item : sequence) array.items.push_back(FromPython(item));
  return Variant(std::move(array));
}

Variant IntFromPython(const py::handle& value) {
  auto number = value.cast<int64_t>();
  if (number >= std::numeric_limits<int32_t>::min() &&
      number <= std::numeric_limits<int32_t>::max()) {
    return Variant(static_cast<int32_t>(number));
  }
  return Variant(static_cast<double>(number));
}

bool IsInstance(const py::handle& value, const char* module, const char* type) {
  return py::isinstance(value, Import(module).attr(type));
}

}  // namespace

void SetNullSentinel(py::object sentinel) { NullSentinel() = std::move(sentinel); }

py::object ToPython(const Variant& value) {
  switch (value.Type()) {
    case VariantType::kEmpty: return py::none();
    case VariantType::kNull: return NullSentinel();
    case VariantType::kInteger:
    case VariantType::kLong:
    case VariantType::kByte: return py::int_(value.ToLong());
    case VariantType::kSingle:
    case VariantType::kDouble: return py::float_(value.ToDouble());
    case VariantType::kCurrency: return CurrencyToPython(value.ToCurrency());
    case VariantType::kDate: return DateToPython(value.ToDate());
    case VariantType::kString: return py::str(value.ToString());
    case VariantType::kBoolean: return py::bool_(value.ToBool());
    case VariantType::kByteArray: {
      const auto& bytes = *value.Get<std::vector<uint8_t>>();
      return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case VariantType::kArray: return ArrayToPython(value.ToArray());
    case VariantType::kObject: {
      ObjectRef object = value.ToObject();
      if (!object) return py::none();
      return py::cast(Object(std::move(object)));
    }
  }
  return py::none();
}

Variant FromPython(const py::handle& value) {
  if (value.is_none()) return Variant();
  if (value.is(NullSentinel())) return Variant(Null{});
  if (py::isinstance<py::bool_>(value)) return Variant(value.cast<bool>());
  if (py::isinstance<py::int_>(value)) return IntFromPython(value);
  if (py::isinstance<py::float_>(value)) return Variant(value.cast<double>());
  if (py::isinstance<py::str>(value)) return Variant(value.cast<std::string>());
  if (py::isinstance<py::bytes>(value) || py::isinstance<py::bytearray>(value)) {
    std::string raw = py::isinstance<py::bytes>(value)
                          ? value.cast<std::string>()
                          : py::bytes(py::reinterpret_borrow<py::object>(value)).cast<std::string>();
    return Variant(std::vector<uint8_t>(raw.begin(), raw.end()));
  }
  if (py::isinstance<Object>(value)) return Variant(value.cast<const Object&>().ref());
  if (IsInstance(value, "decimal", "Decimal")) return CurrencyFromPython(value);
  if (IsInstance(value, "datetime", "date")) return DateFromPython(value);
  if (py::isinstance<py::list>(value) || py::isinstance<py::tuple>(value)) {
    return ArrayFromPython(py::reinterpret_borrow<py::sequence>(value));
  }
  throw py::type_error("a value of type " + std::string(py::str(value.get_type().attr("__name__"))) +
                       " cannot be passed to a Pelmora object");
}

}  // namespace pelmora::python
