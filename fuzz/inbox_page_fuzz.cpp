// Feeds arbitrary bytes to the inbox's page decoder as the body of a GraphQL answer. Whatever
// the service sends, decoding either gives records or throws `core::DecodingError`; any other
// exception, crash or sanitizer report is a finding. A page that decodes must survive the
// trip through the message set's own JSON unchanged, and its messages must be displayable.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/decoding.hpp"
#include "herald/inbox_message.hpp"
#include "platform/json.hpp"

namespace {

// Every derived property a list shows; none may throw.
void display(const herald::InboxMessagePtr& message, herald::InboxMessage::Date now) {
  (void)message->subtitle();
  (void)message->time(now);
  (void)message->timestamp(now);
  const auto copy = message->copy();
  if (copy->toJSON() != message->toJSON()) __builtin_trap();
}

void checkPage(const herald::InboxResponse& response) {
  const auto page = herald::InboxMessageSet::fromData(response.data.value_or(herald::InboxData{}));
  const auto json = page.toJSON();
  const auto again = herald::InboxMessageSet::from(core::KeyedDecoder(json, {}));
  if (again.toJSON() != json) __builtin_trap();
  if (again.messages.size() != page.messages.size()) __builtin_trap();
  // A fixed moment, so that a finding replays the same way.
  const herald::InboxMessage::Date now{std::chrono::seconds{1767225600}};
  for (const auto& message : page.messages) display(message, now);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  try {
    checkPage(core::decodeJSON<herald::InboxResponse>(body));
  } catch (const core::DecodingError&) {
  } catch (...) {
    __builtin_trap();
  }
  try {
    const auto one = core::decodeJSON<herald::HeraldGetInboxMessageResponse>(body);
    if (one.data && one.data->message) display(*one.data->message, herald::InboxMessage::Date{});
  } catch (const core::DecodingError&) {
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
