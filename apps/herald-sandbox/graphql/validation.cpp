#include "validation.hpp"

#include <charconv>
#include <climits>
#include <cstdint>
#include <map>
#include <set>

#include "typeref.hpp"

// The passes, each linear in the document: an index of the definitions, the fragment graph
// (cycles and fragments never used), one typed walk over each operation and each fragment
// (a spread is a leaf there: fragments are never walked again where they are spread), the
// variables of each operation joined with those of the fragments it reaches, and field
// merging (field_merging.cpp). Messages are worded as the reference implementation words
// them, so that tools and tests written against it read the same.

namespace sandbox::graphql {
namespace detail {

void Reporter::report(std::string message, std::vector<Location> locations) {
  if (errors_.size() >= limit_)
    abort("Too many validation errors, error limit reached. Validation aborted.");
  errors_.push_back({std::move(message), std::move(locations)});
}

void Reporter::abort(std::string message) {
  errors_.push_back({std::move(message), {}});
  throw Aborted{};
}

}  // namespace detail

namespace {

using detail::Reporter;

std::string quote(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

/// A variable as a definition of an operation or fragment uses it.
struct Usage {
  std::string name;
  Location location;
  std::string type;  ///< the type expected where it stands; empty: unknown
  bool locationHasDefault = false;
};

struct Definition {
  std::vector<Usage> usages;
  std::vector<std::string> spreads;  ///< fragments spread directly, in order, repeats kept
};

class Validator {
 public:
  Validator(const Schema& schema, const Document& document, const ValidationLimits& limits,
            Reporter& reporter)
      : schema_(schema), document_(document), limits_(limits), reporter_(reporter) {}

  void run() {
    if (document_.fragments.size() > limits_.fragments)
      reporter_.abort("The document defines " + std::to_string(document_.fragments.size()) +
                      " fragments; this service takes at most " +
                      std::to_string(limits_.fragments) + " (its fragment limit).");
    index();
    for (const auto& fragment : document_.fragments) walkFragment(fragment);
    for (const auto& operation : document_.operations) walkOperation(operation);
    findCycles();
    findUnused();
    for (std::size_t i = 0; i < document_.operations.size(); ++i) checkVariables(i);
  }

 private:
  void report(std::string message, std::vector<Location> locations) {
    reporter_.report(std::move(message), std::move(locations));
  }

  // --- pass 1: names --------------------------------------------------------------------

  void index() {
    std::map<std::string_view, Location> operations, fragments;
    for (const auto& operation : document_.operations) {
      if (operation.name.empty()) {
        if (document_.operations.size() > 1)
          report("This anonymous operation must be the only defined operation.",
                 {operation.location});
        continue;
      }
      const auto [known, added] = operations.emplace(operation.name, operation.nameLocation);
      if (!added)
        report("There can be only one operation named " + quote(operation.name) + ".",
               {known->second, operation.nameLocation});
    }
    for (const auto& fragment : document_.fragments) {
      const auto [known, added] = fragments.emplace(fragment.name, fragment.nameLocation);
      if (!added)
        report("There can be only one fragment named " + quote(fragment.name) + ".",
               {known->second, fragment.nameLocation});
      // The last of a name is the one spread, as in the reference implementation.
      byName_[fragment.name] = &fragment;
    }
  }

  // --- pass 2: the fragment graph -------------------------------------------------------

  // Each fragment is entered once; a spread back into the path is a cycle, reported with the
  // spreads that form it.
  void findCycles() {
    std::set<std::string_view> visited;
    std::map<std::string_view, std::size_t> pathIndex;
    std::vector<std::pair<std::string_view, Location>> path;
    // Explicit frames: a chain of fragments as long as the document allows needs no stack.
    struct Frame {
      const Fragment* fragment;
      std::size_t next = 0;
    };
    for (const auto& start : document_.fragments) {
      if (visited.count(start.name)) continue;
      std::vector<Frame> stack;
      auto enter = [&](const Fragment* fragment) {
        visited.insert(fragment->name);
        if (spreadsOf(*fragment).empty()) return;
        pathIndex[fragment->name] = path.size();
        stack.push_back({fragment});
      };
      enter(&start);
      while (!stack.empty()) {
        auto& frame = stack.back();
        const auto& spreads = spreadsOf(*frame.fragment);
        if (frame.next == spreads.size()) {
          pathIndex.erase(frame.fragment->name);
          stack.pop_back();
          if (!path.empty() && !stack.empty()) path.pop_back();
          continue;
        }
        const auto& [name, location] = spreads[frame.next++];
        path.emplace_back(name, location);
        if (const auto cycle = pathIndex.find(name); cycle != pathIndex.end()) {
          std::string via;
          std::vector<Location> locations;
          for (std::size_t i = cycle->second; i < path.size(); ++i) {
            locations.push_back(path[i].second);
            if (i + 1 < path.size()) via += (via.empty() ? "" : ", ") + quote(path[i].first);
          }
          report("Cannot spread fragment " + quote(name) + " within itself" +
                     (via.empty() ? "." : " via " + via + "."),
                 locations);
          path.pop_back();
          continue;
        }
        const auto target = byName_.find(name);
        if (target == byName_.end() || visited.count(name)) {
          path.pop_back();
          continue;
        }
        const auto depth = stack.size();
        enter(target->second);
        if (stack.size() == depth) path.pop_back();  // a fragment that spreads nothing
      }
    }
  }

  // The spreads of a fragment's selections, found as the reference implementation finds
  // them: the set's own spreads first, then nested sets, last one first.
  const std::vector<std::pair<std::string_view, Location>>& spreadsOf(const Fragment& fragment) {
    auto& spreads = spreadNodes_[&fragment];
    if (spreads.computed) return spreads.list;
    spreads.computed = true;
    std::vector<const std::vector<Selection>*> sets{&fragment.selections};
    while (!sets.empty()) {
      const auto* set = sets.back();
      sets.pop_back();
      for (const auto& selection : *set) {
        if (selection.kind == Selection::Kind::fragmentSpread)
          spreads.list.emplace_back(selection.name, selection.location);
        else if (!selection.selections.empty())
          sets.push_back(&selection.selections);
      }
    }
    return spreads.list;
  }

  // The fragments an operation reaches, each once, in the order first reached.
  std::vector<const Fragment*> reachedFrom(const Definition& definition) {
    std::vector<const Fragment*> reached;
    std::set<std::string_view> seen;
    std::vector<const Definition*> pending{&definition};
    while (!pending.empty()) {
      const auto* current = pending.back();
      pending.pop_back();
      for (const auto& name : current->spreads) {
        if (!seen.insert(name).second) continue;
        const auto found = byName_.find(name);
        if (found == byName_.end()) continue;
        reached.push_back(found->second);
        pending.push_back(&fragments_[found->second]);
      }
    }
    return reached;
  }

  void findUnused() {
    std::set<const Fragment*> used;
    for (const auto& operation : document_.operations)
      for (const auto* fragment : reachedFrom(operations_[&operation])) used.insert(fragment);
    std::set<std::string_view> usedNames;
    for (const auto* fragment : used) usedNames.insert(fragment->name);
    for (const auto& fragment : document_.fragments)
      if (!usedNames.count(fragment.name))
        report("Fragment " + quote(fragment.name) + " is never used.", {fragment.location});
  }

  // --- pass 3: the typed walk -----------------------------------------------------------

  void walkOperation(const Operation& operation) {
    current_ = &operations_[&operation];
    static constexpr const char* kLocations[] = {"QUERY", "MUTATION", "SUBSCRIPTION"};
    directives(operation.directives, kLocations[static_cast<int>(operation.kind)]);
    // One error for each name given more than once, at every place it is given.
    std::map<std::string_view, std::vector<Location>> seen;
    for (const auto& variable : operation.variables)
      seen[variable.name].push_back({variable.location.line, variable.location.column + 1});
    for (const auto& [name, places] : seen)
      if (places.size() > 1)
        report("There can be only one variable named " + quote("$" + std::string(name)) + ".",
               places);
    for (const auto& variable : operation.variables) {
      const auto* type = schema_.named(variable.type);
      if (!type) {
        report("Unknown type " + quote(typeref::named(variable.type)) + ".",
               {variable.namedTypeLocation});
      } else if (!type->isInput()) {
        report("Variable " + quote("$" + variable.name) + " cannot be non-input type " +
                   quote(variable.type) + ".",
               {variable.typeLocation});
      } else if (variable.defaultValue) {
        value(*variable.defaultValue, variable.type, false, true);
      }
      directives(variable.directives, "VARIABLE_DEFINITION");
    }
    const TypeDefinition* root = nullptr;
    if (operation.kind == Operation::Kind::query) root = schema_.type(schema_.queryType);
    if (operation.kind == Operation::Kind::mutation && !schema_.mutationType.empty())
      root = schema_.type(schema_.mutationType);
    selections(operation.selections, root);
  }

  void walkFragment(const Fragment& fragment) {
    current_ = &fragments_[&fragment];
    directives(fragment.directives, "FRAGMENT_DEFINITION");
    const auto* type = schema_.type(fragment.typeCondition);
    if (!type) {
      report("Unknown type " + quote(fragment.typeCondition) + ".",
             {fragment.typeConditionLocation});
    } else if (!type->isComposite()) {
      report("Fragment " + quote(fragment.name) + " cannot condition on non composite type " +
                 quote(fragment.typeCondition) + ".",
             {fragment.typeConditionLocation});
      type = nullptr;
    }
    selections(fragment.selections, type);
  }

  // `parent` is null where the type is unknown (an unknown field above): nothing below it
  // can be checked against the schema, and the error above is the one that counts.
  void selections(const std::vector<Selection>& set, const TypeDefinition* parent) {
    for (const auto& selection : set) {
      switch (selection.kind) {
        case Selection::Kind::field:
          field(selection, parent);
          break;
        case Selection::Kind::fragmentSpread:
          spread(selection, parent);
          break;
        case Selection::Kind::inlineFragment:
          inlineFragment(selection, parent);
          break;
      }
    }
  }

  void field(const Selection& selection, const TypeDefinition* parent) {
    const FieldDefinition* definition = parent ? schema_.field(*parent, selection.name) : nullptr;
    if (parent && !definition)
      report(
          "Cannot query field " + quote(selection.name) + " on type " + quote(parent->name) + ".",
          {selection.location});
    arguments(selection.arguments, definition ? &definition->arguments : nullptr,
              "field " + quote(parent && definition ? parent->name + "." + selection.name : ""),
              selection.location, [&](const InputValue& missing) {
                return "Field " + quote(selection.name) + " argument " + quote(missing.name) +
                       " of type " + quote(missing.type) + " is required, but it was not provided.";
              });
    directives(selection.directives, "FIELD");
    const TypeDefinition* type = definition ? schema_.named(definition->type) : nullptr;
    if (type && type->isLeaf() && !selection.selections.empty())
      report("Field " + quote(selection.name) + " must not have a selection since type " +
                 quote(definition->type) + " has no subfields.",
             {selection.selectionsLocation});
    else if (type && !type->isLeaf() && selection.selections.empty())
      report("Field " + quote(selection.name) + " of type " + quote(definition->type) +
                 " must have a selection of subfields. Did you mean " +
                 quote(selection.name + " { ... }") + "?",
             {selection.location});
    selections(selection.selections, type && type->isComposite() ? type : nullptr);
  }

  void spread(const Selection& selection, const TypeDefinition* parent) {
    current_->spreads.push_back(selection.name);
    directives(selection.directives, "FRAGMENT_SPREAD");
    const auto found = byName_.find(selection.name);
    if (found == byName_.end()) {
      report("Unknown fragment " + quote(selection.name) + ".", {selection.nameLocation});
      return;
    }
    const auto* type = schema_.type(found->second->typeCondition);
    if (parent && type && type->isComposite() && type != parent)
      report("Fragment " + quote(selection.name) + " cannot be spread here as objects of type " +
                 quote(parent->name) + " can never be of type " + quote(type->name) + ".",
             {selection.location});
  }

  void inlineFragment(const Selection& selection, const TypeDefinition* parent) {
    directives(selection.directives, "INLINE_FRAGMENT");
    const TypeDefinition* type = parent;
    if (!selection.typeCondition.empty()) {
      type = schema_.type(selection.typeCondition);
      if (!type) {
        report("Unknown type " + quote(selection.typeCondition) + ".",
               {selection.typeConditionLocation});
      } else if (!type->isComposite()) {
        report("Fragment cannot condition on non composite type " + quote(selection.typeCondition) +
                   ".",
               {selection.typeConditionLocation});
        type = nullptr;
      } else if (parent && type != parent) {
        report("Fragment cannot be spread here as objects of type " + quote(parent->name) +
                   " can never be of type " + quote(type->name) + ".",
               {selection.location});
      }
    }
    selections(selection.selections, type);
  }

  template <typename Missing>
  void arguments(const std::vector<Argument>& given, const std::vector<InputValue>* defined,
                 const std::string& owner, Location ownerLocation, Missing missing) {
    std::map<std::string_view, std::vector<Location>> seen;
    for (const auto& argument : given) seen[argument.name].push_back(argument.location);
    for (const auto& [name, places] : seen)
      if (places.size() > 1)
        report("There can be only one argument named " + quote(name) + ".", places);
    for (const auto& argument : given) {
      const InputValue* definition = nullptr;
      if (defined)
        for (const auto& candidate : *defined)
          if (candidate.name == argument.name) definition = &candidate;
      if (defined && !definition)
        report("Unknown argument " + quote(argument.name) + " on " + owner + ".",
               {argument.location});
      value(argument.value, definition ? definition->type : "",
            definition && definition->defaultValue, true);
    }
    if (!defined) return;
    for (const auto& definition : *defined)
      if (typeref::isNonNull(definition.type) && !definition.defaultValue &&
          !seen.count(definition.name))
        report(missing(definition), {ownerLocation});
  }

  void directives(const std::vector<Directive>& list, std::string_view location) {
    std::map<std::string_view, Location> seen;
    for (const auto& directive : list) {
      const auto* definition = schema_.directive(directive.name);
      if (!definition) {
        report("Unknown directive " + quote("@" + directive.name) + ".", {directive.location});
      } else {
        if (!definition->allowedOn(location))
          report("Directive " + quote("@" + directive.name) + " may not be used on " +
                     std::string(location) + ".",
                 {directive.location});
        if (!definition->repeatable) {
          const auto [known, added] = seen.emplace(directive.name, directive.location);
          if (!added)
            report("The directive " + quote("@" + directive.name) +
                       " can only be used once at this location.",
                   {known->second, directive.location});
        }
      }
      arguments(directive.arguments, definition ? &definition->arguments : nullptr,
                "directive " + quote("@" + directive.name), directive.location,
                [&](const InputValue& missing) {
                  return "Directive " + quote("@" + directive.name) + " argument " +
                         quote(missing.name) + " of type " + quote(missing.type) +
                         " is required, but it was not provided.";
                });
    }
  }

  // A value where `type` is expected (empty: unknown). `check` is off inside a value already
  // refused as a whole: its variables still count as used, but it gets no second error.
  void value(const Value& v, std::string_view type, bool locationHasDefault, bool check) {
    using Kind = Value::Kind;
    const bool known = !type.empty();
    switch (v.kind) {
      case Kind::variable:
        if (current_)
          current_->usages.push_back({v.text, v.location, std::string(type), locationHasDefault});
        return;
      case Kind::null:
        if (check && known && typeref::isNonNull(type))
          report("Expected value of type " + quote(type) + ", found null.", {v.location});
        return;
      case Kind::list: {
        if (!known) {
          for (const auto& item : v.items) value(item, "", false, false);
          return;
        }
        const auto list = typeref::nullable(type);
        if (typeref::isList(list)) {
          for (const auto& item : v.items) value(item, typeref::ofType(list), false, check);
          return;
        }
        if (check) leaf(v, list);
        for (const auto& item : v.items) value(item, list, false, false);
        return;
      }
      case Kind::object: {
        std::map<std::string_view, Location> seen;
        for (const auto& field : v.fields) {
          const auto [first, added] = seen.emplace(field.name, field.location);
          if (!added)
            report("There can be only one input field named " + quote(field.name) + ".",
                   {first->second, field.location});
        }
        const auto* input = known ? schema_.named(type) : nullptr;
        if (!input || input->kind != TypeKind::inputObject) {
          if (check && known) leaf(v, type);
          for (const auto& field : v.fields) value(field.value, "", false, false);
          return;
        }
        if (check)
          for (const auto& definition : input->inputFields)
            if (typeref::isNonNull(definition.type) && !definition.defaultValue &&
                !seen.count(definition.name))
              report("Field " + quote(input->name + "." + definition.name) + " of required type " +
                         quote(definition.type) + " was not provided.",
                     {v.location});
        for (const auto& field : v.fields) {
          const auto* definition = input->inputField(field.name);
          if (!definition && check)
            report("Field " + quote(field.name) + " is not defined by type " + quote(input->name) +
                       ".",
                   {field.location});
          value(field.value, definition ? definition->type : "",
                definition && definition->defaultValue, check);
        }
        return;
      }
      default:
        if (check && known) leaf(v, type);
        return;
    }
  }

  // Whether a literal fits the scalar or enum `type`, in the words of its coercion.
  void leaf(const Value& v, std::string_view type) {
    using Kind = Value::Kind;
    const auto* named = schema_.named(type);
    if (!named) return;
    if (!named->isLeaf()) {
      report("Expected value of type " + quote(type) + ", found " + printValue(v) + ".",
             {v.location});
      return;
    }
    const auto& name = named->name;
    std::optional<std::string> problem;
    if (name == "Int") {
      if (v.kind != Kind::integer) {
        problem = "Int cannot represent non-integer value: " + printValue(v);
      } else {
        std::int64_t number = 0;
        const auto* end = v.text.data() + v.text.size();
        const auto [last, error] = std::from_chars(v.text.data(), end, number);
        if (error != std::errc() || last != end || number < INT32_MIN || number > INT32_MAX)
          problem = "Int cannot represent non 32-bit signed integer value: " + v.text;
      }
    } else if (name == "Float") {
      if (v.kind != Kind::integer && v.kind != Kind::floating)
        problem = "Float cannot represent non numeric value: " + printValue(v);
    } else if (name == "String") {
      if (v.kind != Kind::string)
        problem = "String cannot represent a non string value: " + printValue(v);
    } else if (name == "Boolean") {
      if (v.kind != Kind::boolean)
        problem = "Boolean cannot represent a non boolean value: " + printValue(v);
    } else if (named->kind == TypeKind::enumeration) {
      if (v.kind != Kind::enumeration) {
        problem =
            "Enum " + quote(name) + " cannot represent non-enum value: " + printValue(v) + ".";
      } else {
        bool found = false;
        for (const auto& candidate : named->enumValues) found = found || candidate.name == v.text;
        if (!found)
          problem = "Value " + quote(v.text) + " does not exist in " + quote(name) + " enum.";
      }
    }
    // Any other scalar (JSON) takes every literal.
    if (problem) report(*problem, {v.location});
  }

  // --- pass 4: the variables of each operation ------------------------------------------

  void checkVariables(std::size_t index) {
    const auto& operation = document_.operations[index];
    const auto& own = operations_[&operation];
    std::vector<const std::vector<Usage>*> usages{&own.usages};
    for (const auto* fragment : reachedFrom(own)) usages.push_back(&fragments_[fragment].usages);
    std::map<std::string_view, const VariableDefinition*> defined;
    // The last of a name is the one that counts, as in the reference implementation.
    for (const auto& variable : operation.variables) defined[variable.name] = &variable;
    std::set<std::string_view> used;
    for (const auto* list : usages) {
      for (const auto& usage : *list) {
        used.insert(usage.name);
        const auto definition = defined.find(usage.name);
        if (definition == defined.end()) {
          report("Variable " + quote("$" + usage.name) + " is not defined" +
                     (operation.name.empty() ? "" : " by operation " + quote(operation.name)) + ".",
                 {usage.location, operation.location});
          continue;
        }
        const auto& variable = *definition->second;
        if (usage.type.empty() || !schema_.named(variable.type)) continue;
        if (!allowed(variable, usage))
          report("Variable " + quote("$" + usage.name) + " of type " + quote(variable.type) +
                     " used in position expecting type " + quote(usage.type) + ".",
                 {variable.location, usage.location});
      }
    }
    for (const auto& variable : operation.variables)
      if (!used.count(variable.name))
        report("Variable " + quote("$" + variable.name) + " is never used" +
                   (operation.name.empty() ? "" : " in operation " + quote(operation.name)) + ".",
               {variable.location});
  }

  // A nullable variable may fill a non-null place when a default stands behind either.
  static bool allowed(const VariableDefinition& variable, const Usage& usage) {
    if (typeref::isNonNull(usage.type) && !typeref::isNonNull(variable.type)) {
      const bool variableDefault =
          variable.defaultValue && variable.defaultValue->kind != Value::Kind::null;
      if (!variableDefault && !usage.locationHasDefault) return false;
      return typeref::isSubtype(variable.type, typeref::nullable(usage.type));
    }
    return typeref::isSubtype(variable.type, usage.type);
  }

  struct Spreads {
    bool computed = false;
    std::vector<std::pair<std::string_view, Location>> list;
  };

  const Schema& schema_;
  const Document& document_;
  const ValidationLimits& limits_;
  Reporter& reporter_;
  std::map<std::string_view, const Fragment*> byName_;
  std::map<const Operation*, Definition> operations_;
  std::map<const Fragment*, Definition> fragments_;
  std::map<const Fragment*, Spreads> spreadNodes_;
  Definition* current_ = nullptr;
};

}  // namespace

std::vector<Error> validate(const Schema& schema, const Document& document,
                            const ValidationLimits& limits) {
  Reporter reporter(limits.errors);
  try {
    Validator(schema, document, limits, reporter).run();
    detail::checkFieldMerging(schema, document, limits, reporter);
  } catch (const Reporter::Aborted&) {
  }
  return reporter.take();
}

}  // namespace sandbox::graphql
