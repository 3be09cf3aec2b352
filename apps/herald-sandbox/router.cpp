#include "router.hpp"

#include <exception>

namespace sandbox {
namespace {

bool matches(std::string_view pattern, std::string_view path, std::string_view& rest) {
  if (pattern.ends_with('*')) {
    pattern.remove_suffix(1);
    if (!path.starts_with(pattern)) return false;
    rest = path.substr(pattern.size());
    return true;
  }
  rest = {};
  return path == pattern;
}

}  // namespace

void Router::add(std::string method, std::string pattern, Handler handler) {
  routes_.push_back(Route{std::move(method), std::move(pattern), std::move(handler)});
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
