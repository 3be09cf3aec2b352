#include <charconv>

#include "media.hpp"
#include "routes.hpp"
#include "trouble.hpp"

namespace sandbox {
namespace {

// Past the largest attachment the phone takes (50 MB videos), with room to test the limit.
constexpr std::size_t kMaxGeneratedBytes = 256u * 1024 * 1024;

Response generated(std::string_view name) {
  const auto dot = name.find('.');
  std::size_t size = 0;
  const auto digits = name.substr(0, dot);
  auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), size);
  if (dot == std::string_view::npos || digits.empty() || ec != std::errc() ||
      ptr != digits.data() + digits.size() || dot + 1 == name.size())
    throw BadRequest("expected /_sandbox/bytes/<N>.<extension>, such as /_sandbox/bytes/2048.jpg");
  if (size > kMaxGeneratedBytes)
    throw BadRequest("at most " + std::to_string(kMaxGeneratedBytes) + " bytes can be generated");
  const auto extension = name.substr(dot + 1);
  return Response::bytes(contentTypeFor(extension), generatedMedia(size, extension));
}

}  // namespace

void addSandboxRoutes(Router& router, Journal& journal, TroubleRules& troubleRules) {
  router.add("GET", "/_sandbox/requests", [&journal](const Request&, std::string_view) {
    return Response::json(200, journal.entries());
  });
  router.add("DELETE", "/_sandbox/requests", [&journal](const Request&, std::string_view) {
    return Response::json(200, boost::json::object{{"deleted", journal.clear()}});
  });
  router.add("POST", "/_sandbox/trouble",
             [&troubleRules](const Request& request, std::string_view) {
               const auto pending = troubleRules.add(TroubleRule::fromJSON(request.jsonObject()));
               return Response::json(200, boost::json::object{{"rules", pending}});
             });
  router.add("GET", "/_sandbox/trouble", [&troubleRules](const Request&, std::string_view) {
    return Response::json(200, boost::json::object{{"rules", troubleRules.list()}});
  });
  router.add("DELETE", "/_sandbox/trouble", [&troubleRules](const Request&, std::string_view) {
    troubleRules.clear();
    return Response::json(200, boost::json::object{{"rules", 0}});
  });
  router.add("GET", "/_sandbox/bytes/*",
             [](const Request&, std::string_view name) { return generated(name); });
}

}  // namespace sandbox
