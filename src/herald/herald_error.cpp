#include "herald/herald_error.hpp"

#include "platform/error.hpp"

namespace herald {

HeraldError::HeraldError(long code, std::string message, std::optional<std::string> type)
    : code(code), message(std::move(message)), type(std::move(type)) {}

HeraldError::HeraldError(const std::exception& error) {
  if (const auto* herald = dynamic_cast<const HeraldError*>(&error)) {
    *this = *herald;
    return;
  }
  if (const auto* platformError = dynamic_cast<const platform::Error*>(&error)) {
    code = platformError->code();
    message = platformError->localizedDescription();
  } else {
    // An error without a code of its own: the platform's generic code.
    code = 1;
    message = error.what();
  }
  type = platform::typeName(error);
}

HeraldError HeraldError::from(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return HeraldError(e);
  } catch (...) {
    return HeraldError(1, "Unknown Error");
  }
}

HeraldError HeraldError::noUserSignedIn() {
  return HeraldError(404, "No user signed in", "authentication_error");
}

HeraldError HeraldError::inboxNotInitialized() {
  return HeraldError(403, "Herald Inbox is not initialized", "initialization_error");
}

}  // namespace herald
