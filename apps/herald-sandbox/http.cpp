#include "http.hpp"

#include <algorithm>
#include <boost/url/parse.hpp>
#include <cctype>

#include "platform/json.hpp"
#include "platform/text.hpp"

namespace sandbox {

Request Request::make(std::string method, std::string target, HeaderFields headers,
                      std::string body) {
  auto parsed = boost::urls::parse_origin_form(target);
  if (!parsed) throw BadRequest("the request target '" + target + "' is not a path");
  Request request;
  request.path = parsed->path();
  for (auto param : parsed->params())
    request.query.emplace_back(param.key, param.has_value ? param.value : std::string());
  request.method = std::move(method);
  request.target = std::move(target);
  request.headers = std::move(headers);
  request.body = std::move(body);
  return request;
}

std::optional<std::string> Request::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (platform::equalsIgnoringCase(key, name)) return value;
  return std::nullopt;
}

std::optional<std::string> Request::queryValue(std::string_view name) const {
  for (const auto& [key, value] : query)
    if (key == name) return value;
  return std::nullopt;
}

std::vector<std::string> Request::segments() const {
  std::vector<std::string> result;
  // make() has checked that the target parses.
  for (auto segment : boost::urls::parse_origin_form(target)->segments())
    result.push_back(std::move(segment));
  return result;
}

boost::json::object Request::jsonObject() const {
  boost::json::value value;
  try {
    value = platform::parseJSON(body);
  } catch (const platform::JSONSyntaxError& e) {
    throw BadRequest(std::string("the body is not JSON: ") + e.what());
  }
  auto* object = value.if_object();
  if (!object)
    throw BadRequest("the body must be a JSON object, not " + platform::describeJSONKind(value));
  return std::move(*object);
}

Response Response::json(int status, const boost::json::value& body) {
  return Response{status, {{"Content-Type", "application/json"}}, platform::toJSON(body)};
}

Response Response::error(int status, std::string message, std::string type) {
  return json(status,
              boost::json::object{{"message", std::move(message)}, {"type", std::move(type)}});
}

Response Response::bytes(std::string contentType, std::string body) {
  return Response{200, {{"Content-Type", std::move(contentType)}}, std::move(body)};
}

}  // namespace sandbox
