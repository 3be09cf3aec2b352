#pragma once
/// The request frame shared by every area client: three request builders and `sendRequest`,
/// which sends, logs (when `showLogs` is on), checks the status and turns a refusal into a
/// `HeraldError`.
///
///   class BrandClient : public herald::HeraldApiClient {
///     boost::asio::awaitable<std::string> fetch(std::string query) {
///       auto request = makeGraphQLRequest(Endpoints::current().graphQLURL(), {query});
///       co_return co_await sendRequest(std::move(request), {200});
///     }
///   };

#include <boost/asio/awaitable.hpp>
#include <boost/json/value.hpp>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "herald/herald_client.hpp"
#include "platform/url_loading.hpp"

namespace herald {

/// The body of every GraphQL request. `variables` is sent as the JSON *string* "{}", not as
/// an object; the service accepts that.
struct HeraldGraphQLQuery {
  std::string query;
  std::string variables = "{}";

  /// {"query":…,"variables":"{}"}
  std::string toJSON() const;
};

class HeraldApiClient {
 public:
  using Options = HeraldClient::Options;
  /// What the GraphQL builder lets its caller do to the request: method, headers, body.
  using RequestStep = std::function<void(platform::URLRequest&)>;

  explicit HeraldApiClient(Options options) : options_(std::move(options)) {}
  virtual ~HeraldApiClient() = default;

  const Options& options() const { return options_; }

  /// Every builder throws `platform::Error` (`url_error::badURL`) when a credential or the
  /// user id holds CR, LF or NUL, before anything is sent.
  ///
  /// REST: `method` and, when there is a jwt, "Authorization: Bearer …"; never the client
  /// key or the user id. Then "User-Agent" and "Content-Type: application/json". Throws
  /// `platform::Error` ("Invalid URL", -1) for a text that is not a URL.
  platform::URLRequest makeRequest(std::string_view url, std::string method) const;

  /// GraphQL: `step` sets method, headers and body; then "User-Agent" and "Content-Type".
  platform::URLRequest makeRequest(std::string_view url, const RequestStep& step) const;

  /// "PUT" with `body` as compact JSON and, when there is a jwt, the bearer token; then
  /// "User-Agent" and "Content-Type".
  platform::URLRequest makeBodyRequest(std::string_view url, const boost::json::value& body) const;

  /// The usual GraphQL step: "POST", "x-herald-user-id", then "Authorization" (jwt) or else
  /// "x-herald-client-key" (never both), and the query as body. Callers that need more
  /// headers write their own step around `addCredentialHeaders`.
  platform::URLRequest makeGraphQLRequest(std::string_view url,
                                          const HeraldGraphQLQuery& query) const;

  /// "Authorization: Bearer <jwt>" when there is a jwt, else "x-herald-client-key" when there
  /// is a client key, else nothing.
  void addCredentialHeaders(platform::URLRequest& request) const;

  /// Sends `request` and returns the body when the status is in `acceptedCodes`. A response
  /// without an HTTP status counts as 420. Any other status throws `HeraldError` with the
  /// body's "message" and "type" strings ("Unknown Error" when there is no string message).
  /// Transport failures are rethrown as the `platform::Error` they are. The client must
  /// outlive the call.
  boost::asio::awaitable<std::string> sendRequest(platform::URLRequest request,
                                                  std::vector<int> acceptedCodes) const;

 private:
  Options options_;
};

}  // namespace herald
