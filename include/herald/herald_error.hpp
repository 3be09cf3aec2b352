#pragma once
/// The service client's error value: what a refused request, or any error that crosses the
/// client's boundary, becomes.
///
///   try { co_await client->tracking()->postTrackingUrl(url, HeraldTrackingEvent::delivered); }
///   catch (const herald::HeraldError& e) { log(e.code, e.message, e.type.value_or("")); }

#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace herald {

class HeraldError : public std::exception {
 public:
  /// The HTTP status of a refused request, or the code of a wrapped error.
  long code = 0;
  /// The service's message, or a fixed text ("Unknown Error" when the service gave none).
  std::string message;
  /// The service's error type, or the demangled type name of a wrapped error.
  std::optional<std::string> type;

  HeraldError(long code, std::string message, std::optional<std::string> type = std::nullopt);

  /// Wraps any error: a `HeraldError` is taken as it is; a `platform::Error` gives its code
  /// and localized description; any other exception gives code 1 (the platform's generic
  /// code) and its `what()`. `type` is the demangled name of the error's dynamic type.
  ///
  ///   catch (const std::exception& e) { HeraldError wrapped(e); }
  HeraldError(const std::exception& error);  // NOLINT(google-explicit-constructor)

  /// Wraps whatever `error` holds (an exception that is not a `std::exception` gives code 1,
  /// message "Unknown Error"). `error` must not be null.
  static HeraldError from(std::exception_ptr error);

  /// What a refused request becomes: `status` as the code, and the body's "message" and
  /// "type" when the body is a JSON object holding them as strings ("Unknown Error" and no
  /// type otherwise; any body, however malformed, gives an error).
  ///
  ///   HeraldError::fromResponse(401, R"({"message":"Bad token","type":"auth"})");
  static HeraldError fromResponse(long status, std::string_view body);

  /// Raised when an operation needs a signed-in user: 404, "No user signed in",
  /// "authentication_error".
  static HeraldError noUserSignedIn();
  /// Raised when the inbox is used before it is ready: 403, "Herald Inbox is not
  /// initialized", "initialization_error".
  static HeraldError inboxNotInitialized();

  const char* what() const noexcept override { return message.c_str(); }

  friend bool operator==(const HeraldError& a, const HeraldError& b) {
    return a.code == b.code && a.message == b.message && a.type == b.type;
  }
};

}  // namespace herald
