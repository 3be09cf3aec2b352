#pragma once
/// The inbox's request layer: each inbox operation is one GraphQL POST to the inbox endpoint
/// (`Endpoints::current().inboxGraphQLURL`), answered with the records of inbox_message.hpp.
///
///   auto client = std::make_shared<herald::HeraldClient>(jwt, std::nullopt, "user-1",
///                                                         connectionId, tenantId, false);
///   auto inbox = client->inbox();  // must outlive the calls below
///   auto page = co_await inbox->getMessages(24, std::nullopt);
///   auto unread = co_await inbox->getUnreadMessageCount();
///   co_await inbox->read(page.data->messages->nodes->front()->messageId);
///
/// Queries are literal GraphQL text with the arguments spliced in as they are (ids come from
/// the service and hold no quotes); the "variables" member is always the string "{}".
/// Every operation throws what `sendRequest` throws (`HeraldError` for a refused request,
/// `platform::Error` for an invalid URL or a transport failure), and a page that cannot be
/// decoded throws `core::DecodingError` naming the key.
///
/// The client also owns the user's realtime socket (`socket()`), made on first use.

#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "herald/herald_api_client.hpp"
#include "herald/inbox_message.hpp"

namespace herald {

class InboxSocket;

class InboxClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;

  /// The realtime socket for these options, made on the first call and kept for the
  /// client's life (closed; `connect()` opens it).
  std::shared_ptr<InboxSocket> socket() const;

  /// The query texts exactly as they are sent, for the local service and for tests.
  std::string getMessagesQuery(std::int64_t paginationLimit,
                               const std::optional<std::string>& startCursor) const;
  std::string getArchivedMessagesQuery(std::int64_t paginationLimit,
                                       const std::optional<std::string>& startCursor) const;
  std::string unreadMessageCountQuery() const;
  static std::string getMessageQuery(std::string_view messageId);
  static std::string clickMutation(std::string_view messageId, std::string_view trackingId);
  static std::string readMutation(std::string_view messageId);
  static std::string unreadMutation(std::string_view messageId);
  static std::string openMutation(std::string_view messageId);
  static std::string archiveMutation(std::string_view messageId);
  static std::string readAllMutation();

  /// POST, then "x-herald-user-id", "x-herald-client-source-id" (only with a connection id),
  /// "Authorization" (jwt) or else "x-herald-client-key", "User-Agent", "Content-Type".
  platform::URLRequest makeInboxRequest(std::string_view url, std::string query) const;

  /// One message. The query asks for title, preview and actions inside "content", which the
  /// message does not read, so they come back absent; a fault line in the log says so.
  boost::asio::awaitable<HeraldGetInboxMessageResponse> getMessage(std::string messageId) const;
  /// A page of the feed after `startCursor` (none: the first page).
  boost::asio::awaitable<InboxResponse> getMessages(std::int64_t paginationLimit,
                                                    std::optional<std::string> startCursor) const;
  /// A page of the archive after `startCursor`.
  boost::asio::awaitable<InboxResponse> getArchivedMessages(
      std::int64_t paginationLimit, std::optional<std::string> startCursor) const;
  /// The number of unread messages; 0 when the answer holds no count.
  boost::asio::awaitable<std::int64_t> getUnreadMessageCount() const;

  // Mutations: only the status of the answer counts.
  boost::asio::awaitable<void> click(std::string messageId, std::string trackingId) const;
  boost::asio::awaitable<void> read(std::string messageId) const;
  boost::asio::awaitable<void> unread(std::string messageId) const;
  boost::asio::awaitable<void> open(std::string messageId) const;
  boost::asio::awaitable<void> archive(std::string messageId) const;
  boost::asio::awaitable<void> readAll() const;

 private:
  /// Sends `query` to the inbox endpoint and returns the answer's body (status 200 only).
  boost::asio::awaitable<std::string> send(std::string query) const;

  mutable std::mutex socketMutex_;
  mutable std::shared_ptr<InboxSocket> socket_;
};

}  // namespace herald
