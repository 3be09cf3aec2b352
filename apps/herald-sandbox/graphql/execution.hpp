#pragma once
// Running one operation of a validated document against a schema description: variables
// coerced, the cost of what is asked checked before anything runs, the selected fields
// collected as GraphQL collects them (each fragment once per collection), and exactly those
// answered. A route resolves its root fields; the rest is here.
//
//   class BrandExecution : public graphql::Execution {
//     json::value resolve(const graphql::FieldGroup& field) override { ... }
//   };

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "document.hpp"
#include "schema.hpp"

namespace sandbox::graphql {

/// {"message", "locations"?: [{"line", "column"}], "path"?, "extensions"?}
boost::json::object errorObject(const std::string& message, std::vector<Location> locations = {},
                                boost::json::array path = {});

using Sets = std::vector<const std::vector<Selection>*>;

/// The fields of one response key, merged from every place they were asked for.
struct FieldGroup {
  std::string key;
  const Selection* field = nullptr;
  Sets subsets;
};

/// What one request may ask for. The figures are this service's own, far above what the
/// client sends; the hosted service's limits are not known.
struct ExecutionLimits {
  /// Values an answer may hold: fields times the page sizes and list sizes above them.
  std::size_t cost = 50000;
  /// Bytes of the JSON answer.
  std::size_t answerBytes = 8 * 1024 * 1024;
};

/// One operation against one schema, of a document that validated.
class Execution {
 public:
  Execution(const Schema& schema, const Document& document, const Operation& operation,
            const boost::json::object& variables);
  virtual ~Execution() = default;
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;

  /// Coerces the variables and weighs the operation: every reason not to run it (each an
  /// error object, the limits' with extensions.code), empty when it may run.
  boost::json::array prepare(const ExecutionLimits& limits = {});
  /// {"data": ..., "errors"?: [...]}: each root field as `resolve` answers it, in order.
  boost::json::object run();

  /// The fields selected by `sets` on `type`, merged by response key, with @skip/@include and
  /// fragments applied.
  std::vector<FieldGroup> collect(std::string_view type, const Sets& sets);
  /// The arguments of a field of `type`: literals, variables' values and defaults.
  boost::json::object args(const FieldGroup& group, std::string_view type);
  /// The fields that `sets` select on `type`, answered from `source`, a stored JSON object
  /// whose keys are the schema's field names: leaves as stored (null when absent), objects
  /// (and arrays of them) selected in turn; a null `source` is null.
  boost::json::value selectFrom(std::string_view type, const Sets& sets,
                                const boost::json::value& source);
  void fail(const std::string& message, Location location, boost::json::array path = {});
  const Schema& schema() const { return schema_; }

 protected:
  /// The value of one root field of the operation; a failure calls `fail` with the field's
  /// path and answers null.
  virtual boost::json::value resolve(const FieldGroup& field) = 0;
  bool isMutation() const { return operation_.kind == Operation::Kind::mutation; }

 private:
  std::string_view rootType() const;
  void coerceVariables();
  boost::json::value literal(const Value& value);
  bool included(const std::vector<Directive>& directives);
  void collectInto(std::string_view type, const std::vector<Selection>& set,
                   std::vector<FieldGroup>& groups, std::vector<std::string_view>& visited);
  std::size_t cost(std::string_view type, const Sets& sets, std::size_t multiplier,
                   std::optional<std::size_t> page, std::size_t limit);

  const Schema& schema_;
  std::map<std::string_view, const Fragment*> fragments_;
  const Operation& operation_;
  const boost::json::object& givenVariables_;
  std::map<std::string, boost::json::value, std::less<>> variables_;
  boost::json::array errors_;
};

}  // namespace sandbox::graphql
