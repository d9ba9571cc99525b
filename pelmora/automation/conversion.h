// Conversions between C++ values and Variants used by bound classes and event sources.
//
// VariantTraits<T>::From(variant) converts an argument as the automation language does (raising
// 13, 6 or 94 as Variant's To* members do); VariantTraits<T>::To(value) makes the Variant of a
// result or of a by-reference argument. Supported: Variant, bool, int16_t, int32_t, int64_t (as
// Double), uint8_t, float, double, Currency, Date, std::string (and std::string_view, const
// char* results), std::vector<uint8_t>, VariantArray, ObjectRef, enumerations (as Long), and
// std::shared_ptr / std::unique_ptr of a bound class (as object references).
#ifndef PELMORA_AUTOMATION_CONVERSION_H_
#define PELMORA_AUTOMATION_CONVERSION_H_

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "pelmora/automation/class_info.h"
#include "pelmora/automation/dispatch.h"
#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::automation {

template <class T, class Enable = void>
struct VariantTraits {
  static_assert(sizeof(T) == 0, "no Variant conversion for this type");
};

// Types a Variant holds directly: converting in is the matching To* member.
#define PELMORA_DIRECT_VARIANT_TRAITS(Type, Member)                 \
  template <>                                                       \
  struct VariantTraits<Type> {                                      \
    static Type From(const Variant& v) { return v.Member(); }       \
    static Variant To(const Type& value) { return Variant(value); } \
  };
PELMORA_DIRECT_VARIANT_TRAITS(bool, ToBool)
PELMORA_DIRECT_VARIANT_TRAITS(int16_t, ToInteger)
PELMORA_DIRECT_VARIANT_TRAITS(int32_t, ToLong)
PELMORA_DIRECT_VARIANT_TRAITS(uint8_t, ToByte)
PELMORA_DIRECT_VARIANT_TRAITS(float, ToSingle)
PELMORA_DIRECT_VARIANT_TRAITS(double, ToDouble)
PELMORA_DIRECT_VARIANT_TRAITS(Currency, ToCurrency)
PELMORA_DIRECT_VARIANT_TRAITS(Date, ToDate)
PELMORA_DIRECT_VARIANT_TRAITS(std::string, ToString)
PELMORA_DIRECT_VARIANT_TRAITS(std::vector<uint8_t>, ToBytes)
PELMORA_DIRECT_VARIANT_TRAITS(VariantArray, ToArray)
PELMORA_DIRECT_VARIANT_TRAITS(ObjectRef, ToObject)
#undef PELMORA_DIRECT_VARIANT_TRAITS

template <>
struct VariantTraits<Variant> {
  static Variant From(const Variant& v) { return v; }
  static Variant To(const Variant& value) { return value; }
};

template <>
struct VariantTraits<std::string_view> {
  static Variant To(std::string_view value) { return Variant(value); }
};

template <>
struct VariantTraits<const char*> {
  static Variant To(const char* value) { return Variant(value); }
};

// Raises 6 "Overflow".
[[noreturn]] PELMORA_API void RaiseOverflow();

// 64-bit integers travel as Doubles (exact up to 2^53), rounded half to even on the way in.
template <>
struct VariantTraits<int64_t> {
  static int64_t From(const Variant& v) {
    double value = std::nearbyint(v.ToDouble());
    if (!(value >= -9223372036854775808.0 && value < 9223372036854775808.0)) RaiseOverflow();
    return static_cast<int64_t>(value);
  }
  static Variant To(int64_t value) { return Variant(static_cast<double>(value)); }
};

template <class E>
struct VariantTraits<E, std::enable_if_t<std::is_enum_v<E>>> {
  static E From(const Variant& v) { return static_cast<E>(v.ToLong()); }
  static Variant To(E value) { return Variant(static_cast<int32_t>(value)); }
};

// Raises 13 "Type mismatch".
[[noreturn]] PELMORA_API void RaiseTypeMismatch();

// Objects of a bound class (or of a Dispatch implementation) as object references.
template <class T>
struct VariantTraits<std::shared_ptr<T>> {
  static std::shared_ptr<T> From(const Variant& v) {
    ObjectRef ref = v.ToObject();
    if (ref == nullptr) return nullptr;
    std::shared_ptr<T> typed;
    if constexpr (std::is_base_of_v<Dispatch, T>) {
      typed = std::dynamic_pointer_cast<T>(ref);
    } else {
      typed = Unwrap<T>(ref);
    }
    if (typed == nullptr) RaiseTypeMismatch();
    return typed;
  }
  static Variant To(const std::shared_ptr<T>& value) {
    if constexpr (std::is_base_of_v<Dispatch, T>) {
      return Variant(ObjectRef(value));
    } else {
      return Variant(Wrap(value));
    }
  }
};

template <class T>
struct VariantTraits<std::unique_ptr<T>> {
  static Variant To(std::unique_ptr<T>&& value) {
    return VariantTraits<std::shared_ptr<T>>::To(std::shared_ptr<T>(std::move(value)));
  }
};

// The Variant of any supported C++ value.
template <class T>
Variant ToVariant(T&& value) {
  return VariantTraits<std::decay_t<T>>::To(std::forward<T>(value));
}

// `v` converted to T; raises as VariantTraits<T>::From does.
template <class T>
T FromVariant(const Variant& v) {
  return VariantTraits<T>::From(v);
}

}  // namespace pelmora::automation

#endif  // PELMORA_AUTOMATION_CONVERSION_H_
