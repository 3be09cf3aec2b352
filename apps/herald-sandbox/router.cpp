#include "router.hpp"

#include <exception>

namespace sandbox {
namespace {

// A "*" inside a pattern takes one path segment, a trailing one the rest of the path; `rest`
// is what the last "*" took.
bool matches(std::string_view pattern, std::string_view path, std::string_view& rest) {
  rest = {};
  for (auto star = pattern.find('*'); star != std::string_view::npos; star = pattern.find('*')) {
    if (!path.starts_with(pattern.substr(0, star))) return false;
    path.remove_prefix(star);
    pattern.remove_prefix(star + 1);
    if (pattern.empty()) {
      rest = path;
      return true;
    }
    rest = path.substr(0, path.find('/'));
    path.remove_prefix(rest.size());
  }
  return path == pattern;
}

}  // namespace

void Router::add(std::string method, std::string pattern, Handler handler) {
  add(std::move(method), std::move(pattern), std::move(handler), Runs::onIOThread);
}

void Router::add(std::string method, std::string pattern, Handler handler, Runs runs) {
  routes_.push_back(Route{std::move(method), std::move(pattern), std::move(handler), runs});
}

bool Router::runsOnWorker(const Request& request) const {
  for (const auto& route : routes_) {
    std::string_view rest;
    if (route.method == request.method && matches(route.pattern, request.path, rest))
      return route.runs == Runs::onWorker;
  }
  return false;
}

Response Router::handle(const Request& request) const {
  std::string allowed;
  for (const auto& route : routes_) {
    std::string_view rest;
    if (!matches(route.pattern, request.path, rest)) continue;
    if (route.method != request.method) {
      if (allowed.find(route.method) == std::string::npos)
        allowed += (allowed.empty() ? "" : ", ") + route.method;
      continue;
    }
    try {
      return route.handler(request, rest);
    } catch (const BadRequest& e) {
      return Response::error(400, e.what());
    } catch (const std::exception& e) {
      return Response::error(500, std::string("the sandbox failed: ") + e.what(), "api_error");
    }
  }
  if (!allowed.empty()) {
    auto response = Response::error(
        405, request.method + " is not allowed on " + request.path + " (allowed: " + allowed + ")");
    response.headers.emplace_back("Allow", allowed);
    return response;
  }
  return Response::error(404, "no route for " + request.method + " " + request.path);
}

}  // namespace sandbox
