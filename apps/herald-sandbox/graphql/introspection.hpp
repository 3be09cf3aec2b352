#pragma once
// __schema and __type, answered from the schema description that validation and execution
// read, so that what tools see is what the service checks and runs.

#include <boost/json/value.hpp>
#include <cstddef>
#include <string_view>

#include "execution.hpp"

namespace sandbox::graphql {

/// The answer to a root field "__schema" or "__type" of `execution`'s operation.
boost::json::value introspect(Execution& execution, const FieldGroup& field);

/// How long the introspection list `field` ("types", "fields", "args", …) can be in `schema`:
/// what the cost of an introspection query is weighed with.
std::size_t introspectionListSize(const Schema& schema, std::string_view field);

}  // namespace sandbox::graphql
