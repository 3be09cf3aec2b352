#include "herald/inbox_socket.hpp"

#include "herald/endpoints.hpp"
#include "herald/herald_agent.hpp"

namespace herald {

InboxSocket::InboxSocket(HeraldClient::Options options,
                         platform::WebSocketConfiguration configuration)
    : HeraldSocket(socketURL(Endpoints::current().realtimeSocketURL, options),
                   std::move(configuration)),
      options(std::move(options)) {}

std::shared_ptr<InboxSocket> InboxSocket::create(HeraldClient::Options options,
                                                 platform::WebSocketConfiguration configuration) {
  std::shared_ptr<InboxSocket> socket(new InboxSocket(std::move(options), std::move(configuration)));
  attach(socket);
  std::weak_ptr<InboxSocket> weak = socket;
  socket->onMessageReceived = [weak](std::string text) {
    if (auto self = weak.lock()) self->handleMessage(text);
  };
  return socket;
}

std::string InboxSocket::socketURL(std::string_view endpoint,
                                   const HeraldClient::Options& options) {
  std::string url(endpoint);
  if (options.jwt) {
    url += "/?auth=" + *options.jwt;
  } else if (options.clientKey) {
    url += "/?clientKey=" + *options.clientKey;
  }
  return url;
}

boost::json::object InboxSocket::subscribeMessage(const HeraldClient::Options& options,
                                                  std::int64_t version) {
  boost::json::object data;
  data["userAgent"] = HeraldAgent::current().value();
  data["channel"] = options.userId;
  data["event"] = "*";
  data["version"] = version;
  if (options.clientKey) data["clientKey"] = *options.clientKey;
  if (options.connectionId) data["clientSourceId"] = *options.connectionId;
  if (options.tenantId) data["accountId"] = *options.tenantId;
  boost::json::object message;
  message["action"] = "subscribe";
  message["data"] = std::move(data);
  return message;
}

boost::asio::awaitable<void> InboxSocket::sendSubscribe(std::int64_t version) {
  co_await send(subscribeMessage(options, version));
}

void InboxSocket::handleMessage(std::string_view text) {
  SocketFrame frame;
  try {
    frame = decodeSocketFrame(text);
  } catch (const std::exception& e) {
    options.error(std::string("Inbox socket frame dropped: ") + e.what());
    return;
  }
  if (auto* message = std::get_if<InboxMessagePtr>(&frame)) {
    receivedMessage(std::move(*message));
  } else {
    receivedMessageEvent(std::get<MessageEvent>(frame));
  }
}

void InboxSocket::report(std::string_view line) const { options.error(line); }

// ---- InboxSocketManager ------------------------------------------------------------------

InboxSocketManager::InboxSocketManager(platform::WebSocketConfiguration configuration)
    : configuration_(std::move(configuration)) {}

void InboxSocketManager::closeSocketHere() {
  if (!shared_) return;
  shared_->disconnect();
  shared_->receivedMessage = nullptr;
  shared_->receivedMessageEvent = nullptr;
  shared_.reset();
}

boost::asio::awaitable<void> InboxSocketManager::closeSocket() {
  return actor_.run([this]() -> boost::asio::awaitable<void> {
    closeSocketHere();
    co_return;
  });
}

boost::asio::awaitable<std::shared_ptr<InboxSocket>> InboxSocketManager::updateInstance(
    HeraldClient::Options options) {
  return actor_.run([this, options = std::move(options)]() mutable
                    -> boost::asio::awaitable<std::shared_ptr<InboxSocket>> {
    closeSocketHere();
    shared_ = InboxSocket::create(std::move(options), configuration_);
    co_return shared_;
  });
}

boost::asio::awaitable<std::shared_ptr<InboxSocket>> InboxSocketManager::shared() {
  return actor_.run(
      [this]() -> boost::asio::awaitable<std::shared_ptr<InboxSocket>> { co_return shared_; });
}

boost::asio::awaitable<void> InboxSocketManager::setConfiguration(
    platform::WebSocketConfiguration configuration) {
  return actor_.run([this, configuration = std::move(configuration)]() mutable
                    -> boost::asio::awaitable<void> {
    configuration_ = std::move(configuration);
    co_return;
  });
}

}  // namespace herald
