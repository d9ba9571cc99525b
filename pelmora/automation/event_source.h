// The events of a typed class, raised to every connected sink.
//
// A class that raises events holds an EventSource and names it in its binding
// (ClassBinder::Events); late-bound callers connect sinks through Dispatch::ConnectEvents, C++
// owners connect them directly:
//
//   class Session {
//    public:
//     EventSource events;
//     void Fail(std::string text) { events.Raise("FSOError", text); }  // text is by reference
//   };
//   session.events.Connect(MakeEventSink([](std::string_view name, std::span<Variant> args) {
//     args[0] = Variant("handled");   // Fail sees "handled" in `text` afterwards
//   }));
#ifndef PELMORA_AUTOMATION_EVENT_SOURCE_H_
#define PELMORA_AUTOMATION_EVENT_SOURCE_H_

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "pelmora/automation/conversion.h"
#include "pelmora/automation/dispatch.h"
#include "pelmora/common/variant.h"
#include "pelmora/platform/export.h"

namespace pelmora::automation {

class PELMORA_API EventSource {
 public:
  // Connects `sink`; returns its cookie (never 0). A null sink is ignored and gives 0.
  uint32_t Connect(std::shared_ptr<EventSink> sink);

  // Disconnects the sink of `cookie`; unknown cookies are ignored. Safe inside an event.
  void Disconnect(uint32_t cookie);

  // Whether any sink is connected.
  bool HasSinks() const { return !sinks_.empty(); }

  // Raises `name` with `args` to each sink in connection order, synchronously. A sink connected
  // or disconnected during the event takes effect from the next event. A sink's exception
  // propagates to the raiser and skips the remaining sinks.
  void RaiseArgs(std::string_view name, std::span<Variant> args);

  // Raises `name` with typed arguments converted to Variants. Arguments given as non-const
  // lvalues are by reference: they receive the values the sinks left (converted back; raises
  // 13 or 6 when a sink left a value that does not convert). Types that only convert one way
  // (std::string_view, const char*) are passed by value.
  template <class... A>
  void Raise(std::string_view name, A&&... args) {
    std::array<Variant, sizeof...(A)> values{ToVariant(args)...};
    RaiseArgs(name, values);
    size_t i = 0;
    (StoreBack(std::forward<A>(args), values[i++]), ...);
    (void)i;
  }

 private:
  // Writes a sink's value back into a non-const lvalue argument of a type that converts back.
  template <class A>
  static void StoreBack(A&& arg, const Variant& value) {
    using Plain = std::remove_cvref_t<A>;
    if constexpr (std::is_lvalue_reference_v<A&&> && !std::is_const_v<std::remove_reference_t<A>> &&
                  requires { VariantTraits<Plain>::From(value); }) {
      arg = FromVariant<Plain>(value);
    }
  }

  struct Connection {
    uint32_t cookie = 0;
    std::shared_ptr<EventSink> sink;
  };
  std::vector<Connection> sinks_;
  uint32_t next_cookie_ = 1;
};

}  // namespace pelmora::automation

#endif  // PELMORA_AUTOMATION_EVENT_SOURCE_H_
