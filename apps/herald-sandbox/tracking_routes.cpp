#include <array>
#include <string_view>

#include "outbox.hpp"
#include "platform/json.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

constexpr std::array<std::string_view, 5> kEvents{"CLICKED", "DELIVERED", "OPENED", "READ",
                                                  "UNREAD"};

Response track(Outbox& outbox, const Request& request, std::string_view id) {
  boost::json::value body;
  try {
    body = platform::parseJSON(request.body);
  } catch (const platform::JSONSyntaxError& e) {
    return Response::error(400, std::string("the body is not JSON: ") + e.what());
  }
  const auto* object = body.if_object();
  if (!object)
    return Response::error(400, "the body must be a JSON object with an \"event\", not " +
                                    platform::describeJSONKind(body));
  const auto* event = object->if_contains("event");
  if (!event) return Response::error(400, "the body has no \"event\"");
  const auto* name = event->if_string();
  if (!name)
    return Response::error(400,
                           "\"event\" must be a string, not " + platform::describeJSONKind(*event));
  for (auto known : kEvents) {
    if (*name != known) continue;
    // Any id is answered alike; one of a message sent from the outbox also keeps the event.
    outbox.track(id, std::string(known));
    return Response::json(200, boost::json::object{{"tracked", known}});
  }
  return Response::error(400,
                         "\"event\" must be one of CLICKED, DELIVERED, OPENED, READ, UNREAD, "
                         "not \"" +
                             std::string(*name) + "\"");
}

}  // namespace

void addTrackingRoutes(Router& router, Outbox& outbox) {
  router.add("POST", "/track/*", [&outbox](const Request& request, std::string_view id) {
    return track(outbox, request, id);
  });
}

}  // namespace sandbox
