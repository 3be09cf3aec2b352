#include "herald/herald_error.hpp"

#include "platform/error.hpp"
#include "platform/json.hpp"

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

HeraldError HeraldError::fromResponse(long status, std::string_view body) {
  std::string message = "Unknown Error";
  std::optional<std::string> type;
  if (auto value = platform::tryParseJSON(body); value && value->is_object()) {
    const auto& object = value->get_object();
    if (auto* m = object.if_contains("message"); m && m->is_string()) {
      message = std::string(m->get_string());
    }
    if (auto* t = object.if_contains("type"); t && t->is_string()) {
      type = std::string(t->get_string());
    }
  }
  return HeraldError(status, std::move(message), std::move(type));
}

HeraldError HeraldError::noUserSignedIn() {
  return HeraldError(404, "No user signed in", "authentication_error");
}

HeraldError HeraldError::inboxNotInitialized() {
  return HeraldError(403, "Herald Inbox is not initialized", "initialization_error");
}

}  // namespace herald
