#include "core/response.hpp"

namespace core {

using Context = HTTPURLResponseError::Context;

Context::Detail Context::Detail::from(const KeyedDecoder& c) {
  return {c.decode<std::string>("field"), c.decode<std::string>("code"),
          c.decode<std::string>("message")};
}

Context::Error Context::Error::from(const KeyedDecoder& c) {
  Error error;
  error.code = c.decode<std::string>("code");
  error.message = c.decode<std::string>("message");
  error.timestamp = c.decode<Date>("timestamp");
  error.path = c.decode<std::string>("path");
  error.details = c.decodeIfPresent<std::vector<Detail>>("details");
  return error;
}

Context::DefaultContext Context::DefaultContext::from(const KeyedDecoder& c) {
  return {c.decode<std::int64_t>("statusCode"), c.decode<Error>("error")};
}

Context::LegacyContext Context::LegacyContext::from(const KeyedDecoder& c) {
  return {c.decode<std::string>("detail"), c.decode<std::string>("message")};
}

Context Context::decode(const boost::json::value& body) {
  return Decodable<Context>::decode(body, {});
}

Context Decodable<Context>::decode(const boost::json::value& value, std::string_view path) {
  try {
    return Decodable<Context::DefaultContext>::decode(value, path);
  } catch (const DecodingError&) {
  }
  try {
    return Decodable<Context::LegacyContext>::decode(value, path);
  } catch (const DecodingError&) {
  }
  throw DecodingError(DecodingError::Kind::dataCorrupted, std::string(path),
                      "Neither `DefaultContext` nor `LegacyContext` can be parsed.");
}

std::optional<std::string> Context::errorCode() const {
  if (const auto* d = defaultContext()) return d->error.code;
  return std::nullopt;
}

std::optional<std::string> Context::errorDescription() const {
  if (const auto* d = defaultContext()) return d->error.message;
  if (const auto* l = legacyContext()) return l->message;
  return std::nullopt;
}

HTTPURLResponseError::HTTPURLResponseError(std::int64_t statusCode, platform::URLResponse response,
                                           std::optional<Context> context)
    : statusCode_(statusCode), response_(std::move(response)), context_(std::move(context)) {
  message_ = "HTTP status " + std::to_string(statusCode_);
  if (context_) {
    if (auto description = context_->errorDescription()) message_ += ": " + *description;
  }
}

HTTPURLResponseError HTTPURLResponseError::fromResponse(const platform::URLResponse& response,
                                                        std::string_view body) {
  Context context;
  try {
    context = Context::decode(parseForDecoding(body));
  } catch (const DecodingError&) {
    // An error page in HTML or an empty body: the status alone says what happened.
  }
  return HTTPURLResponseError(response.statusCode.value_or(0), response, std::move(context));
}

}  // namespace core
