#pragma once
// What every GraphQL route of the sandbox shares: reading the request (body, variables,
// operation), checking the operation against a schema before anything runs, and answering
// exactly the fields selected. A route describes its schema and resolves its root fields; the
// rest is here.
//
//   class BrandExecution : public graphql::Execution {
//     json::value resolve(const graphql::FieldGroup& field) override { ... }
//   };
//   return graphql::answer(accounts, request, [&](const graphql::Call& call) {
//     BrandExecution execution(brands, call);
//     return graphql::execute(execution);
//   });

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "accounts.hpp"
#include "graphql.hpp"
#include "http.hpp"

namespace sandbox::graphql {

struct ArgumentSpec {
  std::string_view name;
  std::string_view type;
  bool required = false;
};
struct FieldSpec {
  std::string_view name;
  std::string_view type;
  std::vector<ArgumentSpec> arguments;
};
/// Output types by name with their fields and arguments. The leaf types are "Int", "String",
/// "Boolean" and "JSON" (any JSON value); the roots are "Query" and "Mutation".
using Schema = std::map<std::string_view, std::vector<FieldSpec>>;

/// {"message", "locations"?: [{"line", "column"}], "path"?}
boost::json::object errorObject(const std::string& message,
                                std::optional<Location> location = {},
                                boost::json::array path = {});
/// 400 {"errors": [...]}: the request was refused before anything ran.
Response requestErrors(boost::json::array errors);

using Sets = std::vector<const std::vector<Selection>*>;

/// The fields of one response key, merged from every place they were asked for.
struct FieldGroup {
  std::string key;
  const Selection* field = nullptr;
  Sets subsets;
};

/// A request read and its operation chosen, handed to the route.
struct Call {
  const Request& request;
  std::string user;  ///< "x-herald-user-id", already authorized
  const Document& document;
  const Operation& operation;
  const boost::json::object& variables;
};

/// One operation against one schema. `validate` first (variables, fields, arguments,
/// fragments, directives); `run` only an operation that validated.
class Execution {
 public:
  Execution(const Schema& schema, const Call& call);
  virtual ~Execution() = default;
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;

  /// Every reason not to run the operation; empty when it may run.
  boost::json::array validate();
  /// {"data": ..., "errors"?: [...]}: each root field as `resolve` answers it, in order.
  boost::json::object run();

 protected:
  /// The value of one root field of the operation (of "Query" or "Mutation"); a failure
  /// calls `fail` with the field's path and answers null.
  virtual boost::json::value resolve(const FieldGroup& field) = 0;
  /// Why `value` cannot stand for the input type `type` (not a scalar), or nothing when it
  /// can. The default knows no input types.
  virtual std::optional<std::string> checkInputObject(const boost::json::value& value,
                                                      std::string_view type);

  /// Why `value` cannot stand for `type`, or nothing when it can. Null is left to the caller.
  std::optional<std::string> checkInput(const boost::json::value& value, std::string_view type);
  void fail(const std::string& message, Location location, boost::json::array path = {});
  /// The fields selected by `sets` on `type`, merged by response key, with @skip/@include and
  /// fragments applied.
  std::vector<FieldGroup> collect(std::string_view type, const Sets& sets);
  /// The arguments of a field of `type`, variables replaced by their values.
  boost::json::object args(const FieldGroup& group, std::string_view type);
  /// The fields that `sets` select on `type`, answered from `source`, a stored JSON object
  /// whose keys are the schema's field names: leaves as stored (null when absent), objects
  /// (and arrays of them) selected in turn; a null `source` is null.
  boost::json::value selectFrom(std::string_view type, const Sets& sets,
                                const boost::json::value& source);
  bool isMutation() const { return operation_.kind == Operation::Kind::mutation; }
  const std::string& user() const { return user_; }

 private:
  std::string_view rootType() const { return isMutation() ? "Mutation" : "Query"; }
  const FieldSpec* findField(std::string_view type, std::string_view name) const;
  void readVariables(const boost::json::object& variables);
  boost::json::value literal(const Value& value, Location where);
  void checkVariableType(const Value& value, std::string_view type);
  boost::json::object arguments(const Selection& field, const FieldSpec& spec);
  bool included(const std::vector<Directive>& directives);
  void collectInto(std::string_view type, const std::vector<Selection>& set,
                   std::vector<FieldGroup>& groups, std::set<std::string>& spreading);
  void validateSet(std::string_view type, const Sets& sets);

  const Schema& schema_;
  std::string user_;
  const Document& document_;
  const Operation& operation_;
  const boost::json::object& givenVariables_;
  std::map<std::string, const VariableDefinition*> definitions_;
  std::map<std::string, boost::json::value> variables_;
  boost::json::array errors_;
  bool validating_ = false;
};

/// Reads a GraphQL POST as the service does: the user of "x-herald-user-id" (400 without
/// one), their access token or the account's client key, a body {"query", "variables"?,
/// "operationName"?} whose variables may be an object or a string holding one, a document
/// that parses, one operation chosen, no subscription. Any refusal is answered here (400 with
/// {"errors"}, or the credentials' 401/403); otherwise `run` answers.
Response answer(const Accounts& accounts, const Request& request,
                const std::function<Response(const Call&)>& run);

/// Validates `execution` and runs it: 400 {"errors"} and nothing run, or 200 with its answer.
Response execute(Execution& execution);

}  // namespace sandbox::graphql
