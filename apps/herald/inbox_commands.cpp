// `herald inbox`: the signed-in user's inbox. Each command takes the session up again from the
// stored credentials and loads the live inbox, as an application's inbox screen does; changes
// go through the facade, which makes them here and tells the service. A page after a cursor
// and a single message are asked of the GraphQL client directly.

#include <string>
#include <string_view>

#include "commands.hpp"
#include "herald/herald.hpp"
#include "herald/inbox_client.hpp"
#include "herald/inbox_message.hpp"
#include "live_inbox.hpp"
#include "platform/executor.hpp"
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

// "N of TOTAL messages" after the messages, and how to get the next page.
void reportPage(const herald::InboxMessageSet& page, const InboxRequest& request,
                Context& context) {
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
}

// The page after a cursor: the live inbox pages from its own cursor, so a page named by the
// caller is asked of the GraphQL client.
awaitable<int> listAfter(const InboxRequest& request, herald::InboxClient& inbox,
                         Context& context) {
  const auto limit = co_await herald::Herald::shared().inboxPaginationLimit();
  // Not a conditional expression: GCC mis-compiles co_await in one.
  herald::InboxResponse response;
  if (request.archived)
    response = co_await inbox.getArchivedMessages(limit, request.after);
  else
    response = co_await inbox.getMessages(limit, request.after);
  reportPage(herald::InboxMessageSet::fromData(response.data.value_or(herald::InboxData{})),
             request, context);
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

// A change of one message (or of all) through the live inbox, reported as the event the
// realtime socket would name.
awaitable<int> change(const InboxRequest& request, Context& context) {
  const auto& id = request.messageId;
  herald::InboxEventType event{};
  std::string text;
  herald::InboxMessagePtr message;
  switch (request.kind) {
    case Kind::read:
      message = co_await changeMessage(MessageChange::read, id);
      event = herald::InboxEventType::read;
      text = "marked " + id + " as read";
      break;
    case Kind::unread:
      message = co_await changeMessage(MessageChange::unread, id);
      event = herald::InboxEventType::unread;
      text = "marked " + id + " as unread";
      break;
    case Kind::open:
      message = co_await changeMessage(MessageChange::open, id);
      event = herald::InboxEventType::opened;
      text = "marked " + id + " as opened";
      break;
    case Kind::archive:
      message = co_await changeMessage(MessageChange::archive, id);
      event = herald::InboxEventType::archive;
      text = "archived " + id;
      break;
    case Kind::click:
      message = co_await changeMessage(MessageChange::click, id);
      event = herald::InboxEventType::click;
      text = "clicked " + id + " (tracking id " +
             oneLine(*message->trackingIds->clickTrackingId) + ")";
      break;
    case Kind::readAll:
      co_await herald::Herald::shared().readAllInboxMessages();
      event = herald::InboxEventType::markAllRead;
      text = "marked every message as read";
      break;
    default:
      throw UsageError("not a change of the inbox");
  }
  boost::json::object fields{{"event", std::string(toString(event))}};
  if (request.kind != Kind::readAll) fields["messageId"] = id;
  if (request.kind == Kind::click) fields["trackingId"] = *message->trackingIds->clickTrackingId;
  context.report.result(text, fields);
  co_return ExitStatus::success;
}

// Loads the live inbox as a screen does, without listening to it (so no listener line on
// standard output, where a command's results go), then closes its socket: a command acts on
// the state it loaded, and an event heard meanwhile would be run as a change of its own.
int loadInbox(Context& context) {
  auto& herald = herald::Herald::shared();
  const auto failure = platform::blockOn(herald.inboxModule()->load());
  platform::blockOn(herald.inboxModule()->closeSocket());
  if (failure) {
    const auto reported = Failure::from(std::make_exception_ptr(*failure));
    context.report.failure(reported, "could not load the inbox");
    return reported.status;
  }
  return ExitStatus::success;
}

}  // namespace

int inbox(InboxRequest request, Context& context) {
  const auto session = platform::blockOn(resumeSession(context));
  if (!session.client) return session.status;
  auto& herald = herald::Herald::shared();
  // The facade keeps the page size within the service's bounds.
  if (request.limit) platform::blockOn(herald.setPaginationLimit(*request.limit));
  const auto client = session.client->inbox();
  if (request.kind == Kind::get) return platform::blockOn(get(request.messageId, *client, context));
  if (request.kind == Kind::list && request.after)
    return platform::blockOn(listAfter(request, *client, context));

  if (const int status = loadInbox(context)) return status;
  const auto data = platform::blockOn(herald.inboxModule()->snapshot());
  if (!data) throw herald::HeraldError::inboxNotInitialized();
  switch (request.kind) {
    case Kind::list: {
      reportPage(request.archived ? data->archived : data->feed, request, context);
      return ExitStatus::success;
    }
    case Kind::count: {
      context.report.result(std::to_string(data->unreadCount) + " unread",
                            {{"unreadCount", data->unreadCount}});
      return ExitStatus::success;
    }
    default:
      break;
  }
  try {
    return platform::blockOn(change(request, context));
  } catch (const MessageNotFound&) {
    context.report.failure(inboxFailure(std::current_exception()), {},
                           {{"messageId", request.messageId}});
    return ExitStatus::refused;
  } catch (const NothingToClick&) {
    context.report.failure(inboxFailure(std::current_exception()), {},
                           {{"messageId", request.messageId}});
    return ExitStatus::refused;
  }
}

}  // namespace cli
