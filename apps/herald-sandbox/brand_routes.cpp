// The API's GraphQL route, /client/q, as the service answers the brand query, and the
// sandbox's route that sets a brand. The query is checked against the schema below before it
// runs, as every GraphQL route here does (graphql/request.hpp); an unknown brand is a field
// error: "brand" is null and the error beside it names the id.

#include <set>
#include <string>
#include <string_view>

#include "brands.hpp"
#include "platform/json.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;

// The same path as the client's graphQLPath constant.
constexpr const char* kGraphQLPath = "/client/q";

class BrandExecution : public graphql::Execution {
 public:
  BrandExecution(const Brands& brands, const graphql::Call& call)
      : Execution(brandSchema(), call.document, call.operation, call.variables), brands_(brands) {}

 private:
  json::value resolve(const graphql::FieldGroup& group) override {
    const auto arguments = args(group, "Query");
    const std::string id(arguments.at("brandId").as_string());
    auto brand = brands_.find(id);
    if (!brand) {
      fail("Brand \"" + id + "\" is not a brand of this account.", group.field->location,
           json::array{json::string(group.key)});
      return nullptr;
    }
    (*brand)["brandId"] = id;
    return selectFrom("Brand", group.subsets, *brand);
  }

  const Brands& brands_;
};

// Every key of `object` must be one of `known`, and hold one of the kinds `valid` takes.
void checkKeys(const json::object& object, std::string_view where,
               const std::set<std::string_view>& known,
               bool (*valid)(std::string_view key, const json::value& value),
               std::string_view expected) {
  for (const auto& [key, value] : object) {
    if (!known.count(std::string_view(key))) {
      std::string names;
      for (const auto name : known) names += (names.empty() ? "" : ", ") + std::string(name);
      throw BadRequest("unknown key \"" + std::string(key) + "\" in " + std::string(where) +
                       " (it has " + names + ")");
    }
    if (!value.is_null() && !valid(key, value))
      throw BadRequest("\"" + std::string(key) + "\" in " + std::string(where) + " must be " +
                       std::string(expected) + ", not " + platform::describeJSONKind(value));
  }
}

// PUT /_sandbox/brands/<id> {"settings": {"colors": {...}, "inapp": {...}}}
Response putBrand(Brands& brands, const Request& request) {
  const auto segments = request.segments();
  if (segments.size() != 3 || segments[2].empty())
    return Response::error(404, "no route for " + request.method + " " + request.path +
                                    " (the path is /_sandbox/brands/<brand id>)");
  auto body = request.jsonObject();
  const auto isObject = [](std::string_view, const json::value& v) { return v.is_object(); };
  checkKeys(body, "the brand", {"settings"}, isObject, "an object");
  if (const auto* settings = body.if_contains("settings"); settings && settings->is_object()) {
    const auto& object = settings->as_object();
    checkKeys(object, "\"settings\"", {"colors", "inapp"}, isObject, "an object");
    if (const auto* colors = object.if_contains("colors"); colors && colors->is_object())
      checkKeys(
          colors->as_object(), "\"colors\"", {"primary", "secondary", "tertiary"},
          [](std::string_view, const json::value& v) { return v.is_string(); }, "a string");
    if (const auto* inapp = object.if_contains("inapp"); inapp && inapp->is_object())
      checkKeys(
          inapp->as_object(), "\"inapp\"", {"borderRadius", "disableHeraldFooter"},
          [](std::string_view key, const json::value& v) {
            return key == "borderRadius" ? v.is_string() : v.is_bool();
          },
          "a string (borderRadius) or a boolean (disableHeraldFooter)");
  }
  brands.put(segments[2], body);
  body["brandId"] = segments[2];
  return Response::json(200, body);
}

}  // namespace

void addBrandRoutes(Router& router, Accounts& accounts, Brands& brands,
                    const graphql::Limits& limits) {
  router.add(
      "POST", kGraphQLPath,
      [&](const Request& request, std::string_view) {
        return graphql::answer(accounts, brandSchema(), limits, request,
                               [&](const graphql::Call& call) {
                                 BrandExecution execution(brands, call);
                                 return graphql::execute(execution, call.limits);
                               });
      },
      Router::Runs::onWorker);
  router.add("PUT", "/_sandbox/brands/*", [&brands](const Request& request, std::string_view) {
    return putBrand(brands, request);
  });
}

}  // namespace sandbox
