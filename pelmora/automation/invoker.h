// Typed calls from Variant arguments: the machinery behind ClassBinder, installed with it because
// its templates expand in the binding's own code. Not for direct use.
//
// MakeAccessor<T>(fn, defaults) turns a member function pointer, a data member pointer or a
// callable taking `T&` first into an Accessor: it converts each argument to the parameter's type,
// fills missing trailing arguments from `defaults`, calls, converts the result, and writes
// non-const lvalue reference parameters back into the caller's Variants (also when the call
// raises, as a by-reference argument is changed in place).
#ifndef PELMORA_AUTOMATION_INVOKER_H_
#define PELMORA_AUTOMATION_INVOKER_H_

#include <cstddef>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "pelmora/automation/class_info.h"
#include "pelmora/automation/conversion.h"
#include "pelmora/platform/export.h"

namespace pelmora::automation::internal {

template <class R, class... P>
struct Signature {
  using Return = R;
  using Params = std::tuple<P...>;
};

template <class M>
struct MemberSignature;
template <class R, class C, class... P>
struct MemberSignature<R (C::*)(P...)> {
  using type = Signature<R, P...>;
};
template <class R, class C, class... P>
struct MemberSignature<R (C::*)(P...) const> {
  using type = Signature<R, P...>;
};
template <class R, class C, class... P>
struct MemberSignature<R (C::*)(P...) noexcept> {
  using type = Signature<R, P...>;
};
template <class R, class C, class... P>
struct MemberSignature<R (C::*)(P...) const noexcept> {
  using type = Signature<R, P...>;
};

template <class S>
struct WithoutSelf;
template <class R, class Self, class... P>
struct WithoutSelf<Signature<R, Self, P...>> {
  using type = Signature<R, P...>;
};

// The result and parameters of a bound callable, not counting the object it is called on.
template <class F, class Enable = void>
struct SignatureOf;
template <class F>
struct SignatureOf<F, std::enable_if_t<std::is_member_function_pointer_v<F>>> : MemberSignature<F> {
};
template <class F>
struct SignatureOf<F, std::enable_if_t<std::is_class_v<F>>>
    : WithoutSelf<typename MemberSignature<decltype(&F::operator())>::type> {};
template <class R, class Self, class... P>
struct SignatureOf<R (*)(Self, P...), void> {
  using type = Signature<R, P...>;
};

// The type an argument is held in while a call runs.
template <class P>
using Held = std::conditional_t<std::is_same_v<std::remove_cvref_t<P>, std::string_view>,
                                std::string, std::remove_cvref_t<P>>;

// Parameters that are non-const lvalue references are by reference.
template <class P>
inline constexpr bool kByReference =
    std::is_lvalue_reference_v<P> && !std::is_const_v<std::remove_reference_t<P>>;

template <class P>
decltype(auto) Pass(Held<P>& held) {
  if constexpr (std::is_lvalue_reference_v<P>) {
    return static_cast<Held<P>&>(held);
  } else {
    return static_cast<Held<P>&&>(held);
  }
}

template <class Params>
struct Arguments;

template <class... P>
struct Arguments<std::tuple<P...>> {
  static constexpr size_t kCount = sizeof...(P);
  static_assert(kCount <= 64, "members take at most 64 arguments");

  // Bit i set: parameter i is by reference.
  static constexpr uint64_t ByReferenceMask() {
    uint64_t mask = 0;
    size_t i = 0;
    ((mask |= (kByReference<P> ? uint64_t{1} << i : 0), ++i), ...);
    return mask;
  }
  using Storage = std::tuple<Held<P>...>;

  // Converts the given arguments, then the defaults of the missing trailing ones.
  static Storage Load(std::span<Variant> args, const std::vector<Variant>& defaults) {
    return LoadEach(args, defaults, std::index_sequence_for<P...>{});
  }

  // Calls `fn` on `self`, writing by-reference arguments back into `args`.
  template <class R, class F, class T>
  static Variant Call(const F& fn, T& self, std::span<Variant> args,
                      const std::vector<Variant>& defaults) {
    Storage held = Load(args, defaults);
    try {
      Variant result = CallWith<R>(fn, self, held, std::index_sequence_for<P...>{});
      StoreBack(held, args, std::index_sequence_for<P...>{});
      return result;
    } catch (...) {
      StoreBack(held, args, std::index_sequence_for<P...>{});
      throw;
    }
  }

 private:
  template <size_t... I>
  static Storage LoadEach(std::span<Variant> args, const std::vector<Variant>& defaults,
                          std::index_sequence<I...>) {
    // Braced initialisation converts left to right, so the first bad argument is reported.
    return Storage{FromVariant<Held<P>>(
        I < args.size() ? args[I] : defaults[I - (kCount - defaults.size())])...};
  }

  template <class R, class F, class T, size_t... I>
  static Variant CallWith(const F& fn, T& self, Storage& held, std::index_sequence<I...>) {
    if constexpr (std::is_void_v<R>) {
      std::invoke(fn, self, Pass<P>(std::get<I>(held))...);
      return Variant();
    } else {
      return ToVariant(std::invoke(fn, self, Pass<P>(std::get<I>(held))...));
    }
  }

  template <size_t... I>
  static void StoreBack(Storage& held, std::span<Variant> args, std::index_sequence<I...>) {
    ((kByReference<P> && I < args.size() ? void(args[I] = ToVariant(std::get<I>(held))) : void()),
     ...);
  }
};

// Raises std::invalid_argument when a binding gives more defaults than parameters.
PELMORA_API void CheckDefaultCount(std::string_view member, size_t defaults, size_t parameters);

// The Accessor that calls `fn` on a T with converted arguments.
template <class T, class F>
Accessor MakeAccessor(std::string_view member, F fn, std::vector<Variant> defaults) {
  using Sig = typename SignatureOf<F>::type;
  using Args = Arguments<typename Sig::Params>;
  CheckDefaultCount(member, defaults.size(), Args::kCount);
  Accessor accessor;
  accessor.min_args = Args::kCount - defaults.size();
  accessor.max_args = Args::kCount;
  accessor.by_reference = Args::ByReferenceMask();
  accessor.call = [fn = std::move(fn), defaults = std::move(defaults)](
                      void* object, std::span<Variant> args) -> Variant {
    return Args::template Call<typename Sig::Return>(fn, *static_cast<T*>(object), args, defaults);
  };
  return accessor;
}

}  // namespace pelmora::automation::internal

#endif  // PELMORA_AUTOMATION_INVOKER_H_
