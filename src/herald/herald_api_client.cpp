#include "herald/herald_api_client.hpp"

#include <algorithm>
#include <boost/json/object.hpp>

#include "core/constants.hpp"
#include "herald/herald_agent.hpp"
#include "herald/herald_error.hpp"
#include "platform/json.hpp"

namespace herald {
namespace {

void addCommonHeaders(platform::URLRequest& request) {
  request.addValue(HeraldAgent::current().value(), "User-Agent");
  request.addValue("application/json", "Content-Type");
}

// REST and body requests carry the user's token and never the client key.
void addBearerToken(platform::URLRequest& request, const HeraldClient::Options& options) {
  if (options.jwt) request.addValue("Bearer " + *options.jwt, "Authorization");
}

platform::URLRequest newRequest(std::string_view url) {
  auto request = platform::URLRequest::make(url);
  request.cachePolicy = platform::CachePolicy::useProtocolCachePolicy;
  request.timeout = std::chrono::seconds(60);
  request.maxResponseBytes = K::Limits::serviceResponseBytes;
  return request;
}

// A body as a person reads it in the log: JSON (any value, not only objects) pretty-printed,
// anything else as it came.
std::string renderBody(const std::string& body) {
  auto value = platform::tryParseJSON(body);
  std::string text = value ? platform::toJSON(*value, platform::JSONStyle::pretty) : body;
  return text.empty() ? "Empty" : text;
}

std::string describeRequest(const platform::URLRequest& request) {
  std::string text =
      "📡 New Herald API Request\nURL: " + request.url + "\nMethod: " + request.method;
  if (!request.headers.empty()) {
    boost::json::object headers;
    for (const auto& [field, value] : request.headers) headers[field] = value;
    text += "\nHeaders: " + platform::toJSON(headers, platform::JSONStyle::pretty);
  }
  if (request.body) text += "\nBody: " + renderBody(*request.body);
  return text;
}

}  // namespace

std::string HeraldGraphQLQuery::toJSON() const {
  return platform::toJSON(boost::json::object{{"query", query}, {"variables", variables}});
}

platform::URLRequest HeraldApiClient::makeRequest(std::string_view url, std::string method) const {
  auto request = newRequest(url);
  request.method = std::move(method);
  addBearerToken(request, options_);
  addCommonHeaders(request);
  return request;
}

platform::URLRequest HeraldApiClient::makeRequest(std::string_view url,
                                                  const RequestStep& step) const {
  auto request = newRequest(url);
  if (step) step(request);
  addCommonHeaders(request);
  return request;
}

platform::URLRequest HeraldApiClient::makeBodyRequest(std::string_view url,
                                                      const boost::json::value& body) const {
  auto request = newRequest(url);
  request.method = "PUT";
  addBearerToken(request, options_);
  request.body = platform::toJSON(body);
  addCommonHeaders(request);
  return request;
}

void HeraldApiClient::addCredentialHeaders(platform::URLRequest& request) const {
  if (options_.jwt) {
    addBearerToken(request, options_);
  } else if (options_.clientKey) {
    request.addValue(*options_.clientKey, "x-herald-client-key");
  }
}

platform::URLRequest HeraldApiClient::makeGraphQLRequest(std::string_view url,
                                                         const HeraldGraphQLQuery& query) const {
  return makeRequest(url, [&](platform::URLRequest& request) {
    request.method = "POST";
    request.addValue(options_.userId, "x-herald-user-id");
    addCredentialHeaders(request);
    request.body = query.toJSON();
  });
}

boost::asio::awaitable<std::string> HeraldApiClient::sendRequest(
    platform::URLRequest request, std::vector<int> acceptedCodes) const {
  // Copied before the first suspension, so the client need not outlive the load.
  const Options options = options_;
  if (options.showLogs) options.log(describeRequest(request));

  auto result = co_await platform::URLSession::shared().data(std::move(request));

  // 420 stands for "no HTTP status at all"; it is in no accepted list.
  const long status = result.response.statusCode.value_or(420);
  if (options.showLogs) {
    options.log("📡 New Herald API Response\nStatus Code: " + std::to_string(status) +
                "\nResponse JSON: " + renderBody(result.data));
  }
  if (std::find(acceptedCodes.begin(), acceptedCodes.end(), status) != acceptedCodes.end()) {
    co_return std::move(result.data);
  }
  throw HeraldError::fromResponse(status, result.data);
}

}  // namespace herald
