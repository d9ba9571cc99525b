// The value type of late-bound calls: one value of any automation type.
//
// A Variant holds Empty, Null, Integer (16-bit), Long (32-bit), Single, Double, Currency, Date,
// String (UTF-8), Boolean, Byte, a byte array, a one-dimensional array of Variants with a lower
// bound, or an object reference (Nothing is a null reference). The To* members convert as the
// automation language does and raise pelmora::Error 13 "Type mismatch", 6 "Overflow" or
// 94 "Invalid use of Null":
//
//   Variant v("12.5");
//   v.ToLong()                    // 12 (half rounds to even)
//   Variant(true).ToString()      // "True"
//   Variant(int16_t{300}).ToByte()  // raises 6 "Overflow"
#ifndef PELMORA_COMMON_VARIANT_H_
#define PELMORA_COMMON_VARIANT_H_

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"

namespace pelmora {

namespace automation {
class Dispatch;
}  // namespace automation

class Variant;

// The kind of value a Variant holds, in the automation type numbering order.
enum class VariantType {
  kEmpty,
  kNull,
  kInteger,
  kLong,
  kSingle,
  kDouble,
  kCurrency,
  kDate,
  kString,
  kObject,
  kBoolean,
  kByte,
  kByteArray,
  kArray,
};

// The Null value (no valid data), distinct from Empty (never assigned).
struct PELMORA_API Null {
  friend bool operator==(Null, Null) { return true; }
};

// A fixed-point amount: `scaled` is the value times 10000 (four decimal places).
struct PELMORA_API Currency {
  int64_t scaled = 0;
  friend auto operator<=>(const Currency&, const Currency&) = default;
};

// A one-dimensional array of Variants whose first element has index `lower_bound`.
struct PELMORA_API VariantArray {
  int32_t lower_bound = 0;
  std::vector<Variant> items;

  // Highest valid index (lower_bound - 1 when empty).
  int32_t UpperBound() const;
  // The element at `index`. Raises 9 "Subscript out of range" outside the bounds.
  Variant& At(int32_t index);
  const Variant& At(int32_t index) const;
  friend PELMORA_API bool operator==(const VariantArray&, const VariantArray&);
};

// A reference to an automation object; a null pointer is Nothing.
using ObjectRef = std::shared_ptr<automation::Dispatch>;

class PELMORA_API Variant {
 public:
  // Empty.
  Variant() = default;
  Variant(Null) : value_(Null{}) {}
  Variant(int16_t v) : value_(v) {}
  Variant(int32_t v) : value_(v) {}
  Variant(float v) : value_(v) {}
  Variant(double v) : value_(v) {}
  Variant(Currency v) : value_(v) {}
  Variant(Date v) : value_(v) {}
  Variant(std::string v) : value_(std::move(v)) {}
  Variant(std::string_view v) : value_(std::string(v)) {}
  // A null pointer gives the empty string.
  Variant(const char* v) : value_(std::string(v == nullptr ? "" : v)) {}
  Variant(bool v) : value_(v) {}
  Variant(uint8_t v) : value_(v) {}
  Variant(std::vector<uint8_t> v) : value_(std::move(v)) {}
  Variant(VariantArray v) : value_(std::move(v)) {}
  // An object reference; a null pointer gives Nothing.
  Variant(ObjectRef v) : value_(std::move(v)) {}
  // Nothing.
  Variant(std::nullptr_t) : value_(ObjectRef()) {}

  // Nothing: an object reference to no object.
  static Variant Nothing() { return Variant(ObjectRef()); }
  // A Currency from a whole or fractional amount, rounded to four places (half to even).
  // Raises 6 "Overflow" outside the Currency range.
  static Variant FromCurrency(double amount);

  VariantType Type() const { return static_cast<VariantType>(value_.index()); }
  bool IsEmpty() const { return Type() == VariantType::kEmpty; }
  bool IsNull() const { return Type() == VariantType::kNull; }
  bool IsObject() const { return Type() == VariantType::kObject; }
  // Nothing: an object reference that refers to no object.
  bool IsNothing() const;
  bool IsArray() const { return Type() == VariantType::kArray; }
  // True for Integer, Long, Single, Double, Currency, Boolean and Byte.
  bool IsNumeric() const;

  // The held value when it is exactly of type V (int16_t, std::string, ...), else nullptr.
  template <class V>
  const V* Get() const {
    return std::get_if<V>(&value_);
  }
  template <class V>
  V* Get() {
    return std::get_if<V>(&value_);
  }

  // Conversions. Empty converts to 0, "", False, the empty date or an empty byte array; Null
  // raises 94 "Invalid use of Null"; arrays and objects raise 13 "Type mismatch"; a value
  // outside the target range raises 6 "Overflow"; a string that is not a number (or date,
  // or boolean) raises 13. Floating values round half to even when converted to whole numbers.
  int16_t ToInteger() const;
  int32_t ToLong() const;
  uint8_t ToByte() const;
  float ToSingle() const;
  double ToDouble() const;
  Currency ToCurrency() const;
  // True for any non-zero number and for "True"/"False" texts (any case) or numeric texts.
  bool ToBool() const;
  // Numbers with up to 15 (Single: 7) significant digits ("0.1", "1E+20"), Currency with up to
  // four decimals, Boolean as "True"/"False", dates as "M/D/YYYY h:nn:ss AM" (date or time
  // part left out when it is zero), byte arrays as UTF-16LE code units turned into UTF-8.
  std::string ToString() const;
  // Numbers are date serials (range 100-01-01 to 9999-12-31, else 6 "Overflow"); strings are
  // read as "YYYY-MM-DD[ hh:nn[:ss]]", "M/D/YYYY[ h:nn[:ss][ AM|PM]]", "D Mon YYYY",
  // "Mon D, YYYY" or a time alone, else 13.
  Date ToDate() const;
  // Byte arrays as they are; strings as their UTF-16LE code units; arrays of numbers element
  // by element (each 0-255).
  std::vector<uint8_t> ToBytes() const;
  // The object reference (null for Nothing). Raises 424 "Object required" for other types.
  ObjectRef ToObject() const;
  // The array. Raises 13 "Type mismatch" when the value is not an array of Variants.
  const VariantArray& ToArray() const;

  // The automation type name: "Empty", "Null", "Integer", "Long", "Single", "Double",
  // "Currency", "Date", "String", "Object" ("Nothing" for a null reference), "Boolean", "Byte",
  // "Byte()", "Variant()".
  std::string TypeName() const;

  // A readable form for logs and test failures, which never raises: the type name and the value
  // ("Long 5", "String \"abc\"", "Byte()[3]", "Variant(1 to 2)", "Empty", "Nothing").
  std::string DebugString() const;
  friend PELMORA_API std::ostream& operator<<(std::ostream& os, const Variant& v);

  // Same type and same value (objects: same object).
  friend bool operator==(const Variant& a, const Variant& b) { return a.value_ == b.value_; }

 private:
  using Value =
      std::variant<std::monostate, Null, int16_t, int32_t, float, double, Currency, Date,
                   std::string, ObjectRef, bool, uint8_t, std::vector<uint8_t>, VariantArray>;
  // The numeric value of a number, Boolean, Date or numeric text; raises as the To* members do.
  double NumericValue() const;
  Value value_;
};

// The automation value of True (-1) and False (0) when a Boolean is read as a number.
inline constexpr int16_t kVariantTrue = -1;
inline constexpr int16_t kVariantFalse = 0;

}  // namespace pelmora

#endif  // PELMORA_COMMON_VARIANT_H_
