#pragma once
// The sandbox's two GraphQL schemas: what /inbox/q and /client/q validate, run, introspect and
// print (herald-sandbox --print-schema inbox|brand).

#include "schema.hpp"

namespace sandbox {

const graphql::Schema& inboxSchema();
const graphql::Schema& brandSchema();

}  // namespace sandbox
