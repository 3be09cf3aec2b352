#include "test_support.hpp"

#include "graphql/document.hpp"

namespace graphql_test {
namespace {

namespace json = boost::json;
using namespace sandbox::graphql;

class FixtureExecution : public Execution {
 public:
  FixtureExecution(const Schema& schema, const Document& document, const Operation& operation,
                   const json::object& variables, const json::object& fixture)
      : Execution(schema, document, operation, variables), fixture_(fixture) {}

 private:
  json::value resolve(const FieldGroup& group) override {
    const auto* stored = fixture_.if_contains(group.field->name);
    if (!stored || stored->is_null()) return nullptr;
    const auto& root = isMutation() ? schema().mutationType : schema().queryType;
    const auto& type = schema().field(*schema().type(root), group.field->name)->type;
    const auto* named = schema().named(type);
    return named->isLeaf() ? *stored : selectFrom(named->name, group.subsets, *stored);
  }
  const json::object& fixture_;
};

json::array errorList(const std::vector<Error>& errors) {
  json::array list;
  for (const auto& error : errors) list.push_back(errorObject(error.message, error.locations));
  return list;
}

}  // namespace

Outcome run(const Schema& schema, const std::string& text, const Options& options) {
  Document document;
  try {
    document = parse(text, options.parse);
  } catch (const SyntaxError& e) {
    return {"syntax", {errorObject(e.what(), {e.location})}, nullptr};
  }
  if (const auto errors = validate(schema, document, options.validation); !errors.empty())
    return {"validation", errorList(errors), nullptr};
  const Operation* operation = nullptr;
  for (const auto& candidate : document.operations)
    if (!options.operationName || candidate.name == *options.operationName) operation = &candidate;
  if (!options.operationName && document.operations.size() > 1)
    return {"execution",
            {errorObject("Must provide operation name if query contains multiple operations.")},
            nullptr};
  if (!operation) return {"execution", {errorObject("no operation")}, nullptr};
  if (operation->kind == Operation::Kind::subscription)
    return {"execution",
            {errorObject("Schema is not configured to execute subscription operation.",
                         {operation->location})},
            nullptr};
  FixtureExecution execution(schema, document, *operation, options.variables, options.fixture);
  if (auto errors = execution.prepare(options.execution); !errors.empty())
    return {"execution", std::move(errors), nullptr};
  auto answer = execution.run();
  Outcome outcome{"ok", {}, answer.at("data")};
  if (const auto* errors = answer.if_contains("errors")) outcome.errors = errors->as_array();
  return outcome;
}

std::string firstMessage(const Outcome& outcome) {
  if (outcome.errors.empty()) return "";
  return std::string(outcome.errors.front().at("message").as_string());
}

}  // namespace graphql_test
