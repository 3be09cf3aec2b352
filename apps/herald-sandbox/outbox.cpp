#include "outbox.hpp"

#include <algorithm>

namespace sandbox {

boost::json::object toJSON(const OutboxMessage& message) {
  boost::json::array events;
  for (const auto& event : message.events) events.push_back(boost::json::string(event));
  return {{"id", message.id},           {"user", message.user},
          {"token", message.token},     {"provider_key", message.providerKey},
          {"payload", message.payload}, {"events", std::move(events)}};
}

OutboxMessage Outbox::add(
    std::string user, std::string token, std::string providerKey,
    const std::function<boost::json::object(const std::string& id)>& payloadFor) {
  std::lock_guard lock(mutex_);
  OutboxMessage message{"m" + std::to_string(++lastId_),
                        std::move(user),
                        std::move(token),
                        std::move(providerKey),
                        {},
                        {}};
  message.payload = payloadFor(message.id);
  messages_.push_back(message);
  return message;
}

bool Outbox::track(std::string_view id, std::string event) {
  std::lock_guard lock(mutex_);
  const auto message = std::ranges::find(messages_, id, &OutboxMessage::id);
  if (message == messages_.end()) return false;
  message->events.push_back(std::move(event));
  return true;
}

std::vector<OutboxMessage> Outbox::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

std::size_t Outbox::clear() {
  std::lock_guard lock(mutex_);
  return std::exchange(messages_, {}).size();
}

}  // namespace sandbox
