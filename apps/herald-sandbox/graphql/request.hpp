#pragma once
// A GraphQL POST as every GraphQL route of the sandbox reads it: credentials, the body
// {"query", "variables"?, "operationName"?}, the document parsed and validated as a whole,
// one operation chosen. Anything refused is answered here and nothing runs.
//
//   return graphql::answer(accounts, schema, request, [&](const graphql::Call& call) {
//     BrandExecution execution(brands, call);
//     return graphql::execute(execution);
//   });

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <functional>
#include <string>

#include "accounts.hpp"
#include "execution.hpp"
#include "http.hpp"
#include "validation.hpp"

namespace sandbox::graphql {

/// The limits of every stage, settable from the command line.
struct Limits {
  ParseLimits parse;
  ValidationLimits validation;
  ExecutionLimits execution;
};

/// A request read, validated and its operation chosen, handed to the route.
struct Call {
  const Request& request;
  std::string user;  ///< "x-herald-user-id", already authorized
  const Document& document;
  const Operation& operation;
  const boost::json::object& variables;
  const Limits& limits;
};

/// 400 {"errors": [...]}: the request was refused before anything ran.
Response requestErrors(boost::json::array errors);

/// Reads a GraphQL POST as the service does: the user of "x-herald-user-id" (400 without
/// one), their access token or the account's client key, a body whose variables may be an
/// object or a string holding one, a document that parses and validates against `schema`,
/// one operation chosen, no subscription. Any refusal is answered here (400 with
/// {"errors"}, or the credentials' 401/403); otherwise `run` answers.
Response answer(const Accounts& accounts, const Schema& schema, const Limits& limits,
                const Request& request, const std::function<Response(const Call&)>& run);

/// Prepares `execution` and runs it: 400 {"errors"} and nothing run, or 200 with its answer
/// (refused with 400 when larger than the answer-size limit).
Response execute(Execution& execution, const Limits& limits);

}  // namespace sandbox::graphql
