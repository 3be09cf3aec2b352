#pragma once
// Requests and responses as the sandbox's routes see them: plain values, no HTTP library.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sandbox {

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

struct Request {
  std::string method;
  std::string target;                                      ///< path and query as sent
  std::string path;                                        ///< percent-decoded
  std::vector<std::pair<std::string, std::string>> query;  ///< decoded, in order
  HeaderFields headers;                                    ///< in the order received
  std::string body;

  /// Parses `target`; throws BadRequest when it is not an origin-form target ("/a?b=c").
  static Request make(std::string method, std::string target, HeaderFields headers,
                      std::string body);

  /// First value of a header, compared without case.
  std::optional<std::string> header(std::string_view name) const;
  /// First value of a query parameter.
  std::optional<std::string> queryValue(std::string_view name) const;
  /// The path's segments, each percent-decoded on its own, so that an encoded "/" stays
  /// inside its segment: "/users/a%2Fb/tokens/t" gives {"users", "a/b", "tokens", "t"}.
  std::vector<std::string> segments() const;
  /// The body as a JSON object; throws BadRequest saying what is wrong when it is not one.
  boost::json::object jsonObject() const;
};

struct Response {
  int status = 200;
  HeaderFields headers;  ///< Content-Length and Connection are the server's business
  std::string body;

  /// A JSON body written for people (3.25, not 3.25E0).
  static Response json(int status, const boost::json::value& body);
  /// The service's error shape: {"message": "...", "type": "..."}.
  static Response error(int status, std::string message,
                        std::string type = "invalid_request_error");
  static Response bytes(std::string contentType, std::string body);
};

/// A request the sandbox refuses before it reaches a route; answered with 400.
class BadRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace sandbox
