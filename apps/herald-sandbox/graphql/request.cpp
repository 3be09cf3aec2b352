#include "request.hpp"

#include <optional>

#include "platform/json.hpp"

namespace sandbox::graphql {
namespace {

namespace json = boost::json;

// The request's variables: a JSON object, or (as the service's clients send them) a string
// that holds one; none at all is an empty object.
std::optional<json::object> variablesOf(const json::object& body) {
  const auto* given = body.if_contains("variables");
  if (!given || given->is_null()) return json::object{};
  if (given->is_object()) return given->as_object();
  if (!given->is_string()) return std::nullopt;
  if (given->as_string().empty()) return json::object{};
  const auto parsed = platform::tryParseJSON(given->as_string());
  if (!parsed || !parsed->is_object()) return std::nullopt;
  return parsed->as_object();
}

}  // namespace

Response requestErrors(json::array errors) {
  return Response::json(400, json::object{{"errors", std::move(errors)}});
}

Response answer(const Accounts& accounts, const Schema& schema, const Limits& limits,
                const Request& request, const std::function<Response(const Call&)>& run) {
  const auto user = request.header("x-herald-user-id");
  if (!user || user->empty())
    return Response::error(400, "the request has no x-herald-user-id header naming the user");
  if (auto refusal = accounts.authorize(request, *user, ClientKey::accepted)) return *refusal;

  const auto parsed = platform::tryParseJSON(request.body);
  if (!parsed || !parsed->is_object())
    return requestErrors({errorObject(
        "The body must be a JSON object {\"query\": \"...\", \"variables\": {...}}.")});
  const auto& body = parsed->as_object();
  const auto* query = body.if_contains("query");
  if (!query || !query->is_string())
    return requestErrors(
        {errorObject("The body must hold the document as a string in \"query\".")});
  const auto variables = variablesOf(body);
  if (!variables)
    return requestErrors(
        {errorObject("\"variables\" must be an object, or a string that holds a JSON object.")});
  const auto* operationName = body.if_contains("operationName");
  if (operationName && !operationName->is_null() && !operationName->is_string())
    return requestErrors({errorObject("\"operationName\" must be a string.")});

  Document document;
  try {
    document = parse(query->as_string(), limits.parse);
  } catch (const SyntaxError& e) {
    return requestErrors({errorObject(e.what(), {e.location})});
  }
  // The whole document, before an operation is chosen: an error in a part not run still
  // refuses it.
  if (const auto errors = validate(schema, document, limits.validation); !errors.empty()) {
    json::array list;
    for (const auto& error : errors) list.push_back(errorObject(error.message, error.locations));
    return requestErrors(std::move(list));
  }
  const Operation* operation = nullptr;
  if (operationName && operationName->is_string()) {
    for (const auto& candidate : document.operations)
      if (candidate.name == operationName->as_string()) operation = &candidate;
    if (!operation)
      return requestErrors({errorObject("Unknown operation named \"" +
                                        std::string(operationName->as_string()) + "\".")});
  } else if (document.operations.size() == 1) {
    operation = &document.operations.front();
  } else {
    return requestErrors(
        {errorObject(document.operations.empty()
                         ? "Must provide an operation."
                         : "Must provide operation name if query contains multiple operations.")});
  }
  if (operation->kind == Operation::Kind::subscription)
    return requestErrors({errorObject(
        "Subscriptions are not served here: new messages come over the realtime socket.",
        {operation->location})});

  return run(Call{request, *user, document, *operation, *variables, limits});
}

Response execute(Execution& execution, const Limits& limits) {
  auto errors = execution.prepare(limits.execution);
  if (!errors.empty()) return requestErrors(std::move(errors));
  auto response = Response::json(200, execution.run());
  if (response.body.size() > limits.execution.answerBytes) {
    auto error = errorObject("The answer is " + std::to_string(response.body.size()) +
                             " bytes long; this service sends at most " +
                             std::to_string(limits.execution.answerBytes) +
                             " (its answer-size limit). Ask for smaller pages or fewer fields.");
    error["extensions"] =
        json::object{{"code", "ANSWER_TOO_LARGE"},
                     {"bytes", static_cast<std::uint64_t>(response.body.size())},
                     {"limit", static_cast<std::uint64_t>(limits.execution.answerBytes)}};
    return requestErrors({std::move(error)});
  }
  return response;
}

}  // namespace sandbox::graphql
