#include "logwell/cloud_log_destination.hpp"

#include <boost/json/object.hpp>

#include "logwell/internal/output.hpp"
#include "platform/json.hpp"

namespace logwell {
namespace {

std::string_view severity(Level level) {
  switch (level) {
    case Level::verbose:
    case Level::debug:
      return "DEBUG";
    case Level::info:
      return "INFO";
    case Level::warning:
      return "WARNING";
    case Level::error:
      return "ERROR";
    case Level::critical:
      return "CRITICAL";
    case Level::fault:
      break;
  }
  return "FAULT";
}

// Written when the entry cannot be encoded; it is deliberately left as it is (no escaping,
// "context" not closed), so collectors see exactly this text.
std::string fallbackLine(std::string_view file, std::string_view function, int line) {
  std::string out = R"({"context":{"reportLocation":{"filePath": ")";
  out += file;
  out += '"';
  out += R"(,"functionName":")";
  out += function;
  out += '"';
  out += R"(,"lineNumber":)";
  out += std::to_string(line);
  out += R"(},"severity")";
  out += R"(:"CRITICAL","message":"Error encoding )";
  out += R"(JSON log entry. You may be losing log messages!"})";
  return out;
}

}  // namespace

CloudLogDestination::CloudLogDestination(std::string name) : serviceName(std::move(name)) {}

std::optional<std::string> CloudLogDestination::send(Level level, std::string_view msg,
                                                     std::string_view, std::string_view file,
                                                     std::string_view function, int line,
                                                     const Context& context) {
  boost::json::object location;
  location["filePath"] = file;
  location["lineNumber"] = line;
  location["functionName"] = function;
  boost::json::object ctx;
  ctx["reportLocation"] = std::move(location);
  if (context && context.value().is_object()) {
    const auto& given = context.value().get_object();
    if (const auto* request = given.if_contains("httpRequest"); request && request->is_object())
      ctx["httpRequest"] = *request;
    if (const auto* user = given.if_contains("user"); user && user->is_string())
      ctx["user"] = *user;
  }
  boost::json::object entry;
  entry["context"] = std::move(ctx);
  entry["serviceContext"] = boost::json::object{{"service", serviceName}};
  entry["message"] = msg;
  entry["severity"] = severity(level);

  std::string text;
  try {
    const boost::json::value value(std::move(entry));
    if (!detail::isJSONSerializable(value)) throw GCPError(GCPError::Code::serialization);
    text = platform::toJSON(value);
  } catch (const GCPError&) {
    text = fallbackLine(file, function, line);
  }
  detail::printLine(text);
  return text;
}

}  // namespace logwell
