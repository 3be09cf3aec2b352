// `herald inbox`: the signed-in user's inbox through the client's GraphQL layer. Each command
// takes the session up again from the stored credentials and makes one inbox request.

#include <string>
#include <string_view>

#include "commands.hpp"
#include "herald/herald.hpp"
#include "herald/inbox_client.hpp"
#include "herald/inbox_message.hpp"
#include "platform/json.hpp"

namespace cli {
namespace {

using boost::asio::awaitable;
using Kind = InboxRequest::Kind;

// "* 5m  Title  [id]" (the star when unread), then the subtitle indented below it.
std::string describe(const herald::InboxMessage& message) {
  std::string time = message.time();
  if (time.size() < 4) time.insert(0, 4 - time.size(), ' ');
  std::string text = std::string(message.isRead() ? " " : "*") + " " + time + "  " +
                     (message.title ? oneLine(*message.title) : "(no title)") + "  [" +
                     oneLine(message.messageId) + "]";
  if (const auto subtitle = message.subtitle()) text += "\n        " + oneLine(*subtitle);
  return text;
}

awaitable<int> list(const InboxRequest& request, herald::InboxClient& inbox, Context& context) {
  auto& herald = herald::Herald::shared();
  // The facade keeps the page size within the service's bounds.
  if (request.limit) co_await herald.setPaginationLimit(*request.limit);
  const auto limit = co_await herald.inboxPaginationLimit();
  // Not a conditional expression: GCC mis-compiles co_await in one.
  herald::InboxResponse response;
  if (request.archived)
    response = co_await inbox.getArchivedMessages(limit, request.after);
  else
    response = co_await inbox.getMessages(limit, request.after);
  const auto page = herald::InboxMessageSet::fromData(response.data.value_or(herald::InboxData{}));

  const std::string which = request.archived ? "archived messages" : "messages";
  std::string text;
  for (const auto& message : page.messages) text += describe(*message) + "\n";
  if (page.messages.empty())
    text += request.after ? "no more " + which : "no " + which;
  else
    text += std::to_string(page.messages.size()) + " of " + std::to_string(page.totalCount) +
            " " + which;
  if (page.canPaginate && page.paginationCursor)
    text += "; more with --after " + oneLine(*page.paginationCursor);
  context.report.result(text, page.toJSON());
  co_return ExitStatus::success;
}

awaitable<int> get(const std::string& messageId, herald::InboxClient& inbox, Context& context) {
  const auto response = co_await inbox.getMessage(messageId);
  const auto message =
      response.data && response.data->message ? *response.data->message : nullptr;
  if (!message) {
    // The service answers an unknown id with an error beside a null message.
    context.report.failure(
        Failure{std::nullopt, "no message " + messageId + " in the inbox", "not_found",
                ExitStatus::refused},
        {}, {{"messageId", messageId}});
    co_return ExitStatus::refused;
  }
  std::string text = describe(*message);
  const auto field = [&](std::string_view name, const std::optional<std::string>& value) {
    if (value) text += "\n  " + std::string(name) + ": " + oneLine(*value);
  };
  field("created", message->created);
  field("read", message->read);
  field("opened", message->opened);
  field("archived", message->archived);
  if (message->trackingIds) field("click tracking id", message->trackingIds->clickTrackingId);
  if (message->data) text += "\n  data: " + platform::toJSON(*message->data);
  context.report.result(text, {{"message", message->toJSON()}});
  co_return ExitStatus::success;
}

// A mutation of one message (or of all), reported as the event the realtime socket would name.
awaitable<int> change(const InboxRequest& request, herald::InboxClient& inbox, Context& context) {
  const auto& id = request.messageId;
  herald::InboxEventType event{};
  std::string text;
  switch (request.kind) {
    case Kind::read:
      co_await inbox.read(id);
      event = herald::InboxEventType::read;
      text = "marked " + id + " as read";
      break;
    case Kind::unread:
      co_await inbox.unread(id);
      event = herald::InboxEventType::unread;
      text = "marked " + id + " as unread";
      break;
    case Kind::open:
      co_await inbox.open(id);
      event = herald::InboxEventType::opened;
      text = "marked " + id + " as opened";
      break;
    case Kind::archive:
      co_await inbox.archive(id);
      event = herald::InboxEventType::archive;
      text = "archived " + id;
      break;
    case Kind::click:
      co_await inbox.click(id, request.trackingId);
      event = herald::InboxEventType::click;
      text = "clicked " + id + " (tracking id " + request.trackingId + ")";
      break;
    case Kind::readAll:
      co_await inbox.readAll();
      event = herald::InboxEventType::markAllRead;
      text = "marked every message as read";
      break;
    default:
      throw UsageError("not a change of the inbox");
  }
  boost::json::object fields{{"event", std::string(toString(event))}};
  if (request.kind != Kind::readAll) fields["messageId"] = id;
  if (request.kind == Kind::click) fields["trackingId"] = request.trackingId;
  context.report.result(text, fields);
  co_return ExitStatus::success;
}

}  // namespace

awaitable<int> inbox(InboxRequest request, Context& context) {
  const auto session = co_await resumeSession(context);
  if (!session.client) co_return session.status;
  const auto client = session.client->inbox();
  switch (request.kind) {
    case Kind::list:
      co_return co_await list(request, *client, context);
    case Kind::count: {
      const auto count = co_await client->getUnreadMessageCount();
      context.report.result(std::to_string(count) + " unread", {{"unreadCount", count}});
      co_return ExitStatus::success;
    }
    case Kind::get:
      co_return co_await get(request.messageId, *client, context);
    default:
      co_return co_await change(request, *client, context);
  }
}

}  // namespace cli
