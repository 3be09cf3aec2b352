#pragma once
// The engine run as a route runs it (parse, validate, choose, prepare, run), with root fields
// answered from a fixture: what the unit tests and the reference comparison share.

#include <boost/json.hpp>
#include <optional>
#include <string>

#include "graphql/execution.hpp"
#include "graphql/schema.hpp"
#include "graphql/validation.hpp"

namespace graphql_test {

struct Outcome {
  /// "syntax", "validation", "execution" (refused before running) or "ok"
  std::string phase;
  boost::json::array errors;
  boost::json::value data;  ///< null unless ran
};

struct Options {
  boost::json::object variables;
  std::optional<std::string> operationName;
  /// Root field name → stored JSON; a missing one answers null.
  boost::json::object fixture;
  sandbox::graphql::ParseLimits parse;
  sandbox::graphql::ValidationLimits validation;
  sandbox::graphql::ExecutionLimits execution;
};

Outcome run(const sandbox::graphql::Schema& schema, const std::string& document,
            const Options& options = {});

/// The first error's message, or "" when there is none.
std::string firstMessage(const Outcome& outcome);

}  // namespace graphql_test
