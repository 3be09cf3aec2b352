#pragma once
/// Prints each entry on standard output as one JSON object in the structured shape that cloud
/// log collectors read (report location, service, message, severity). Always synchronous:
/// the caller returns once its line is printed.
///
///   auto cloud = std::make_shared<logwell::CloudLogDestination>("notification-service");
///   logwell::Logwell::addDestination(cloud);
///   logwell::Logwell::error("upload failed",
///                           {{"user", "ada"}, {"httpRequest", {{"status", 500}}}});

#include <stdexcept>
#include <string>

#include "logwell/base_destination.hpp"

namespace logwell {

/// Raised (and caught) when an entry cannot be written as JSON.
class GCPError : public std::runtime_error {
 public:
  enum class Code { serialization };
  explicit GCPError(Code code) : std::runtime_error("serialization"), code_(code) {}
  Code code() const noexcept { return code_; }

 private:
  Code code_;
};

class CloudLogDestination : public BaseDestination {
 public:
  explicit CloudLogDestination(std::string serviceName);

  std::string serviceName;

  bool asynchronously() const override { return false; }
  void setAsynchronously(bool) override {}

  /// The message goes out unchanged (the format is not used). From a context object only
  /// "httpRequest" (an object) and "user" (a text) are kept.
  std::optional<std::string> send(Level level, std::string_view msg, std::string_view thread,
                                  std::string_view file, std::string_view function, int line,
                                  const Context& context = {}) override;
};

}  // namespace logwell
