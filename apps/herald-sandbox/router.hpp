#pragma once
// Routes by method and path. Each area of the service registers its routes from a file of
// its own (routes.hpp), so that adding an area touches neither the router nor the server.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "http.hpp"

namespace sandbox {

class Router {
 public:
  /// `rest` is the part of the path that the pattern's last "*" matched ("" without one).
  using Handler = std::function<Response(const Request& request, std::string_view rest)>;

  /// `pattern` is a path ("/_sandbox/requests") in which a "*" stands for one segment
  /// ("/users/*/tokens/*") and a trailing "*" for the rest of the path, slashes and all
  /// ("/files/*"). Routes are tried in the order added.
  ///
  ///   router.add("POST", "/track/*", [](const Request& r, std::string_view id) { ... });
  void add(std::string method, std::string pattern, Handler handler);

  /// Where a route runs: on the I/O thread, or on the server's workers for a route whose
  /// work depends on what the request asks (GraphQL), so that it makes no other wait. A
  /// worker's handler touches only state that guards itself.
  enum class Runs { onIOThread, onWorker };
  void add(std::string method, std::string pattern, Handler handler, Runs runs);
  /// Whether the route that `request` goes to runs on a worker.
  bool runsOnWorker(const Request& request) const;

  /// The answer of the first matching route; 404 when no path matches, 405 when the path
  /// matches but not the method. A handler's exception becomes a 500 that carries its text.
  Response handle(const Request& request) const;

 private:
  struct Route {
    std::string method;
    std::string pattern;
    Handler handler;
    Runs runs = Runs::onIOThread;
  };
  std::vector<Route> routes_;
};

}  // namespace sandbox
