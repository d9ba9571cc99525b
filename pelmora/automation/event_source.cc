#include "pelmora/automation/event_source.h"

#include <algorithm>

namespace pelmora::automation {

uint32_t EventSource::Connect(std::shared_ptr<EventSink> sink) {
  if (sink == nullptr) return 0;
  uint32_t cookie = next_cookie_++;
  if (next_cookie_ == 0) next_cookie_ = 1;
  sinks_.push_back(Connection{cookie, std::move(sink)});
  return cookie;
}

void EventSource::Disconnect(uint32_t cookie) {
  std::erase_if(sinks_, [cookie](const Connection& c) { return c.cookie == cookie; });
}

void EventSource::RaiseArgs(std::string_view name, std::span<Variant> args) {
  // A copy, so that sinks may connect or disconnect while the event runs.
  std::vector<Connection> sinks = sinks_;
  for (const Connection& connection : sinks) connection.sink->OnEvent(name, args);
}

}  // namespace pelmora::automation
