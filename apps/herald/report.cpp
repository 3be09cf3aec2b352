#include "report.hpp"

#include <cstdio>
#include <string>

#include "herald/herald_error.hpp"
#include "platform/error.hpp"
#include "platform/json.hpp"
#include "platform/user_defaults.hpp"

namespace cli {
namespace {

boost::json::value optionalJSON(const std::optional<std::string>& text) {
  return text ? boost::json::value(*text) : boost::json::value(nullptr);
}

}  // namespace

void writeLine(std::FILE* stream, std::string line) {
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fflush(stream);
}

std::string oneLine(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  return result;
}

Failure Failure::from(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const herald::HeraldError& e) {
    // A wrapped transport error keeps the URL-loading code, which is negative.
    return Failure{e.code, e.message, e.type, e.code < 0 ? unreachable : refused};
  } catch (const platform::Error& e) {
    ExitStatus status = refused;
    if (e.domain() == platform::url_error::domain)
      status = unreachable;
    else if (e.domain() == platform::user_defaults_error::domain)
      status = storage;
    return Failure{e.code(), e.localizedDescription(), e.domain(), status};
  } catch (const std::exception& e) {
    return Failure{std::nullopt, e.what(), platform::typeName(e), refused};
  } catch (...) {
    return Failure{std::nullopt, "Unknown Error", std::nullopt, refused};
  }
}

Failure Failure::usageError(std::string message) {
  return Failure{std::nullopt, std::move(message), "usage_error", ExitStatus::usage};
}

Failure Failure::storageError(std::string message) {
  return Failure{std::nullopt, std::move(message), "storage_error", ExitStatus::storage};
}

void Reporter::result(std::string_view text, const boost::json::object& fields) const {
  writeLine(stdout, json_ ? platform::toJSON(fields) : std::string(text));
}

void Reporter::note(std::string_view text) const {
  if (!json_) writeLine(stdout, std::string(text));
}

void Reporter::failure(const Failure& failure, std::string_view context,
                       const boost::json::object& extra) const {
  if (json_) {
    boost::json::object line = extra;
    line["error"] = boost::json::object{
        {"code", failure.code ? boost::json::value(*failure.code) : boost::json::value(nullptr)},
        {"message", failure.message},
        {"type", optionalJSON(failure.type)}};
    writeLine(stderr, platform::toJSON(line));
    return;
  }
  std::string line = "herald: ";
  if (!context.empty()) line += std::string(context) + ": ";
  line += failure.message;
  // The command's own errors say all there is to say; others name what a person would
  // look up.
  if (failure.code) {
    line += " (code " + std::to_string(*failure.code);
    if (failure.type) line += ", type " + *failure.type;
    line += ")";
  } else if (failure.type && failure.type != "usage_error" && failure.type != "storage_error") {
    line += " (type " + *failure.type + ")";
  }
  writeLine(stderr, line);
}

platform::LogSink Reporter::logSink(bool everything) const {
  return [json = json_, everything](const platform::LogRecord& record) {
    const bool problem =
        record.type == platform::LogType::error || record.type == platform::LogType::fault;
    if (!problem && !everything) return;
    const std::string level(platform::toString(record.type));
    if (json) {
      writeLine(stderr, platform::toJSON(boost::json::object{
                            {"log", boost::json::object{{"subsystem", record.subsystem},
                                                        {"category", record.category},
                                                        {"level", level},
                                                        {"message", record.message}}}}));
    } else {
      writeLine(stderr,
                record.subsystem + "[" + record.category + "] " + level + ": " + record.message);
    }
  };
}

}  // namespace cli
