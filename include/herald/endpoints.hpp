#pragma once
/// Where the service lives. The defaults name the hosted service; a test or a local run
/// points everything at one base instead:
///
///   HERALD_ENDPOINT=http://127.0.0.1:8080 build/bin/notification-service ...
///
/// gives api "http://127.0.0.1:8080" (GraphQL at "/client/q", REST under "/users/"),
/// inbox "http://127.0.0.1:8080/inbox/q" and socket "ws://127.0.0.1:8080/realtime"
/// (an "https" base gives a "wss" socket). In code, `Endpoints::setCurrent` overrides both
/// the defaults and the environment:
///
///   herald::Endpoints::setCurrent(herald::Endpoints::localService(server.baseURL()));
///   auto url = herald::Endpoints::current().graphQLURL();

#include <optional>
#include <string>
#include <string_view>

#include "core/constants.hpp"

namespace herald {

struct Endpoints {
  /// Base of the API host, without a trailing slash.
  std::string apiBaseURL;
  /// The inbox's GraphQL endpoint.
  std::string inboxGraphQLURL;
  /// The realtime inbox socket.
  std::string realtimeSocketURL;

  /// The GraphQL endpoint on the API host: apiBaseURL + "/client/q".
  std::string graphQLURL() const { return apiBaseURL + std::string(K::Service::graphQLPath); }
  /// The REST base for per-user resources: apiBaseURL + "/users/".
  std::string usersURL() const { return apiBaseURL + std::string(K::Service::usersPath); }

  /// The hosted service.
  static Endpoints defaults();
  /// All three endpoints on one local service at `base` ("http://host:port"); throws
  /// `platform::Error` ("Invalid URL", -1) when `base` is not an http(s) URL with a host.
  static Endpoints localService(std::string_view base);

  /// What `setCurrent` set; else the local service named by HERALD_ENDPOINT (read once; an
  /// invalid value is reported on standard error and ignored); else `defaults()`.
  static Endpoints current();
  /// Overrides the endpoints for the rest of the process (none: back to the rules above).
  static void setCurrent(std::optional<Endpoints> endpoints);
};

}  // namespace herald
