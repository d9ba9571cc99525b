#include "pelmora/common/variant.h"

#include <fmt/format.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <ostream>

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/common/internal/variant_text.h"

namespace pelmora {
namespace {

constexpr double kCurrencyLimit = 922337203685477.5807;
// Serials of 100-01-01 and of the last second of 9999-12-31.
constexpr double kFirstDateSerial = -657434;
constexpr double kLastDateSerial = 2958465.99999;

[[noreturn]] void Raise(int32_t number) { throw RuntimeError(number); }

// Rounds half to even (the default floating-point rounding mode) and checks the range.
template <class I>
I RoundToInteger(double value) {
  double rounded = std::nearbyint(value);
  if (!(rounded >= static_cast<double>(std::numeric_limits<I>::min()) &&
        rounded <= static_cast<double>(std::numeric_limits<I>::max()))) {
    Raise(6);
  }
  return static_cast<I>(rounded);
}

// Currency amounts round to the nearest whole number, half to even, in exact arithmetic.
int64_t RoundCurrency(int64_t scaled) {
  int64_t whole = scaled / 10000;
  int64_t rest = scaled % 10000;
  if (rest > 5000 || (rest == 5000 && whole % 2 != 0)) return whole + 1;
  if (rest < -5000 || (rest == -5000 && whole % 2 != 0)) return whole - 1;
  return whole;
}

template <class I>
I NarrowInteger(int64_t value) {
  if (value < std::numeric_limits<I>::min() || value > std::numeric_limits<I>::max()) Raise(6);
  return static_cast<I>(value);
}

}  // namespace

int32_t VariantArray::UpperBound() const {
  return lower_bound + static_cast<int32_t>(items.size()) - 1;
}

Variant& VariantArray::At(int32_t index) {
  int64_t offset = static_cast<int64_t>(index) - lower_bound;
  if (offset < 0 || offset >= static_cast<int64_t>(items.size())) Raise(9);
  return items[static_cast<size_t>(offset)];
}

const Variant& VariantArray::At(int32_t index) const {
  return const_cast<VariantArray*>(this)->At(index);
}

bool operator==(const VariantArray& a, const VariantArray& b) {
  return a.lower_bound == b.lower_bound && a.items == b.items;
}

Variant Variant::FromCurrency(double amount) {
  if (!(std::fabs(amount) <= kCurrencyLimit)) Raise(6);
  double scaled = std::nearbyint(amount * 10000);
  // The largest amount has no exact double: the nearest one scales to just past the 64-bit range.
  if (scaled >= 0x1p63) return Variant(Currency{std::numeric_limits<int64_t>::max()});
  return Variant(Currency{static_cast<int64_t>(scaled)});
}

bool Variant::IsNothing() const {
  const ObjectRef* object = Get<ObjectRef>();
  return object != nullptr && *object == nullptr;
}

bool Variant::IsNumeric() const {
  switch (Type()) {
    case VariantType::kInteger:
    case VariantType::kLong:
    case VariantType::kSingle:
    case VariantType::kDouble:
    case VariantType::kCurrency:
    case VariantType::kBoolean:
    case VariantType::kByte:
      return true;
    default:
      return false;
  }
}

double Variant::NumericValue() const {
  switch (Type()) {
    case VariantType::kEmpty:
      return 0;
    case VariantType::kNull:
      Raise(94);
    case VariantType::kInteger:
      return *Get<int16_t>();
    case VariantType::kLong:
      return *Get<int32_t>();
    case VariantType::kSingle:
      return *Get<float>();
    case VariantType::kDouble:
      return *Get<double>();
    case VariantType::kCurrency:
      return static_cast<double>(Get<Currency>()->scaled) / 10000;
    case VariantType::kDate:
      return Get<Date>()->Serial();
    case VariantType::kBoolean:
      return *Get<bool>() ? kVariantTrue : kVariantFalse;
    case VariantType::kByte:
      return *Get<uint8_t>();
    case VariantType::kString: {
      auto number = internal::ParseNumberText(*Get<std::string>());
      if (number) return *number;
      auto boolean = internal::ParseBoolText(*Get<std::string>());
      if (boolean) return *boolean ? kVariantTrue : kVariantFalse;
      Raise(13);
    }
    default:
      Raise(13);
  }
}

int16_t Variant::ToInteger() const {
  if (const int16_t* v = Get<int16_t>()) return *v;
  if (const Currency* c = Get<Currency>()) return NarrowInteger<int16_t>(RoundCurrency(c->scaled));
  return RoundToInteger<int16_t>(NumericValue());
}

int32_t Variant::ToLong() const {
  if (const int32_t* v = Get<int32_t>()) return *v;
  if (const Currency* c = Get<Currency>()) return NarrowInteger<int32_t>(RoundCurrency(c->scaled));
  return RoundToInteger<int32_t>(NumericValue());
}

uint8_t Variant::ToByte() const {
  if (const uint8_t* v = Get<uint8_t>()) return *v;
  if (const Currency* c = Get<Currency>()) return NarrowInteger<uint8_t>(RoundCurrency(c->scaled));
  return RoundToInteger<uint8_t>(NumericValue());
}

float Variant::ToSingle() const {
  double value = NumericValue();
  if (std::fabs(value) > FLT_MAX) Raise(6);
  return static_cast<float>(value);
}

double Variant::ToDouble() const { return NumericValue(); }

Currency Variant::ToCurrency() const {
  if (const Currency* c = Get<Currency>()) return *c;
  if (Type() == VariantType::kLong || Type() == VariantType::kInteger ||
      Type() == VariantType::kByte || Type() == VariantType::kBoolean) {
    return Currency{static_cast<int64_t>(NumericValue()) * 10000};
  }
  return *FromCurrency(NumericValue()).Get<Currency>();
}

bool Variant::ToBool() const {
  if (const bool* v = Get<bool>()) return *v;
  if (const std::string* s = Get<std::string>()) {
    if (auto boolean = internal::ParseBoolText(*s)) return *boolean;
  }
  return NumericValue() != 0;
}

std::string Variant::ToString() const {
  switch (Type()) {
    case VariantType::kEmpty:
      return {};
    case VariantType::kNull:
      Raise(94);
    case VariantType::kInteger:
      return fmt::format("{}", *Get<int16_t>());
    case VariantType::kLong:
      return fmt::format("{}", *Get<int32_t>());
    case VariantType::kSingle:
      return internal::FormatNumberText(*Get<float>(), 7);
    case VariantType::kDouble:
      return internal::FormatNumberText(*Get<double>(), 15);
    case VariantType::kCurrency:
      return internal::FormatCurrencyText(Get<Currency>()->scaled);
    case VariantType::kDate:
      return internal::FormatDateText(*Get<Date>());
    case VariantType::kString:
      return *Get<std::string>();
    case VariantType::kBoolean:
      return *Get<bool>() ? "True" : "False";
    case VariantType::kByte:
      return fmt::format("{}", *Get<uint8_t>());
    case VariantType::kByteArray: {
      const auto& bytes = *Get<std::vector<uint8_t>>();
      std::string_view units(reinterpret_cast<const char*>(bytes.data()),
                             bytes.size() & ~size_t{1});
      return Utf16LeToUtf8(units);
    }
    default:
      Raise(13);
  }
}

Date Variant::ToDate() const {
  if (const Date* d = Get<Date>()) return *d;
  if (const std::string* s = Get<std::string>()) {
    auto date = internal::ParseDateText(*s);
    if (!date) Raise(13);
    return *date;
  }
  double serial = NumericValue();
  if (!(serial >= kFirstDateSerial && serial <= kLastDateSerial)) Raise(6);
  return Date::FromSerial(serial);
}

std::vector<uint8_t> Variant::ToBytes() const {
  if (const auto* bytes = Get<std::vector<uint8_t>>()) return *bytes;
  if (IsEmpty()) return {};
  if (const std::string* s = Get<std::string>()) {
    std::string units = Utf8ToUtf16Le(*s);
    return std::vector<uint8_t>(units.begin(), units.end());
  }
  if (const VariantArray* array = Get<VariantArray>()) {
    std::vector<uint8_t> bytes;
    bytes.reserve(array->items.size());
    for (const Variant& item : array->items) bytes.push_back(item.ToByte());
    return bytes;
  }
  if (IsNull()) Raise(94);
  Raise(13);
}

ObjectRef Variant::ToObject() const {
  if (const ObjectRef* object = Get<ObjectRef>()) return *object;
  Raise(424);
}

const VariantArray& Variant::ToArray() const {
  if (const VariantArray* array = Get<VariantArray>()) return *array;
  Raise(13);
}

std::string Variant::TypeName() const {
  static constexpr std::string_view kNames[] = {
      "Empty", "Null",   "Integer", "Long",    "Single", "Double", "Currency",
      "Date",  "String", "Object",  "Boolean", "Byte",   "Byte()", "Variant()"};
  if (IsNothing()) return "Nothing";
  return std::string(kNames[value_.index()]);
}

std::string Variant::DebugString() const {
  switch (Type()) {
    case VariantType::kEmpty:
    case VariantType::kNull:
      return TypeName();
    case VariantType::kObject:
      return IsNothing() ? "Nothing" : "Object";
    case VariantType::kString:
      return fmt::format("String \"{}\"", *Get<std::string>());
    case VariantType::kByteArray:
      return fmt::format("Byte()[{}]", Get<std::vector<uint8_t>>()->size());
    case VariantType::kArray:
      return fmt::format("Variant({} to {})", Get<VariantArray>()->lower_bound,
                         Get<VariantArray>()->UpperBound());
    default:
      return TypeName() + " " + ToString();
  }
}

std::ostream& operator<<(std::ostream& os, const Variant& v) { return os << v.DebugString(); }

}  // namespace pelmora
