#include "pelmora/automation/dispatch.h"

#include <utility>

#include "pelmora/common/error.h"

namespace pelmora::automation {
namespace {

class FunctionEventSink : public EventSink {
 public:
  explicit FunctionEventSink(std::function<void(std::string_view, std::span<Variant>)> handler)
      : handler_(std::move(handler)) {}
  void OnEvent(std::string_view event_name, std::span<Variant> args) override {
    handler_(event_name, args);
  }

 private:
  std::function<void(std::string_view, std::span<Variant>)> handler_;
};

}  // namespace

std::shared_ptr<EventSink> MakeEventSink(
    std::function<void(std::string_view event_name, std::span<Variant> args)> handler) {
  return std::make_shared<FunctionEventSink>(std::move(handler));
}

uint32_t Dispatch::ConnectEvents(std::shared_ptr<EventSink> sink) {
  throw RuntimeError(438, ProgId());
}

void Dispatch::DisconnectEvents(uint32_t cookie) {}

std::vector<MemberInfo> Dispatch::Members() const { return {}; }

std::vector<std::string> Dispatch::MemberNames() const {
  std::vector<std::string> names;
  for (MemberInfo& member : Members()) names.push_back(std::move(member.name));
  return names;
}

}  // namespace pelmora::automation
