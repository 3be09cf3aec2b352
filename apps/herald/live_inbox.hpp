#pragma once
// What the inbox commands share on top of the live inbox (herald/inbox_module.hpp): finding a
// message among the loaded pages and the ones after them, and changing it through the
// facade, so that a change is made, told to the listeners and sent exactly as an application
// makes it.

#include <boost/asio/awaitable.hpp>
#include <exception>
#include <stdexcept>
#include <string>

#include "herald/inbox_message.hpp"
#include "report.hpp"

namespace cli {

/// The changes of one message the commands offer.
enum class MessageChange { read, unread, open, click, archive };

/// A message that is in neither list of the inbox, nor in any page after the loaded ones.
struct MessageNotFound : std::runtime_error {
  explicit MessageNotFound(const std::string& messageId)
      : std::runtime_error("no message " + messageId + " in the inbox") {}
};

/// A click asked of a message that has no click tracking id: there is nothing to count.
struct NothingToClick : std::runtime_error {
  explicit NothingToClick(const std::string& messageId)
      : std::runtime_error("message " + messageId + " has no click tracking id to report") {}
};

/// `Failure::from`, with the two refusals above as "not_found" and "no_click_tracking".
Failure inboxFailure(std::exception_ptr error);

/// The message with `messageId` in the loaded inbox; when it is not there, the next pages of
/// the feed and then of the archive are fetched (and told to the listeners) until it is found
/// or no list has more. None without a loaded inbox. Throws a page's failure.
boost::asio::awaitable<herald::InboxMessagePtr> findMessage(std::string messageId);

/// Finds the message (as `findMessage`) and changes it through the facade. Throws
/// `MessageNotFound`, `NothingToClick`, or the service's refusal (the change already undone).
/// Returns the message as it was found.
boost::asio::awaitable<herald::InboxMessagePtr> changeMessage(MessageChange change,
                                                              std::string messageId);

}  // namespace cli
