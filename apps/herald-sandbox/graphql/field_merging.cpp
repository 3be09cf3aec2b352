// Fields that share a response key must be one field asked once: same name, same arguments,
// types that agree, and sub-selections that merge in turn.
//
// Fragments are never inlined. Each selection set's fields are gathered once (by response
// key, through inline fragments) with the names of the fragments it spreads; sets are then
// compared against fragments and fragments against each other, each pair of fragments at
// most once per mode, so fragments spread in pairs at every level cost a pair per level, not
// a doubling. Identical leaf fields under one key are compared once for all their copies.
// What is left to compare is counted, and past the work limit validation stops with an
// error instead of running for minutes.

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "typeref.hpp"
#include "validation.hpp"

namespace sandbox::graphql::detail {
namespace {

struct FieldEntry {
  const TypeDefinition* parent;  ///< null where unknown
  const Selection* node;
  const FieldDefinition* definition;  ///< the type's own field; meta-fields have none
};

struct FieldsAndFragments {
  std::vector<std::pair<std::string, std::vector<FieldEntry>>> fields;  ///< by key, in order
  std::vector<std::string> fragments;                                   ///< unique, in order
  std::vector<FieldEntry>* find(const std::string& key) {
    for (auto& [name, entries] : fields)
      if (name == key) return &entries;
    return nullptr;
  }
};

/// A conflict: its reason (a text, or the conflicts of sub-fields) and the fields on each side.
struct Conflict {
  std::string key;
  std::string reason;
  std::vector<Conflict> sub;
  std::vector<Location> fields1, fields2;
};

std::string reasonText(const Conflict& conflict) {
  if (conflict.sub.empty()) return conflict.reason;
  std::string out;
  for (const auto& sub : conflict.sub)
    out += (out.empty() ? "" : " and ") + std::string("subfields \"") + sub.key +
           "\" conflict because " + reasonText(sub);
  return out;
}

bool sameArguments(const Selection& a, const Selection& b) {
  if (a.arguments.size() != b.arguments.size()) return false;
  for (const auto& argument : a.arguments) {
    const Argument* other = nullptr;
    for (const auto& candidate : b.arguments)
      if (candidate.name == argument.name) {
        other = &candidate;
        break;
      }
    if (!other || printValue(argument.value) != printValue(other->value)) return false;
  }
  return true;
}

class Merging {
 public:
  Merging(const Schema& schema, const Document& document, const ValidationLimits& limits,
          Reporter& reporter)
      : schema_(schema), limits_(limits), reporter_(reporter) {
    for (const auto& fragment : document.fragments) fragments_[fragment.name] = &fragment;
  }

  // Every selection set of the document, each with the type it selects on.
  void run(const Document& document) {
    for (const auto& operation : document.operations) {
      const TypeDefinition* root = nullptr;
      if (operation.kind == Operation::Kind::query) root = schema_.type(schema_.queryType);
      if (operation.kind == Operation::Kind::mutation && !schema_.mutationType.empty())
        root = schema_.type(schema_.mutationType);
      visit(operation.selections, root);
    }
    for (const auto& fragment : document.fragments) {
      const auto* type = schema_.type(fragment.typeCondition);
      visit(fragment.selections, type && type->isComposite() ? type : nullptr);
    }
  }

 private:
  void visit(const std::vector<Selection>& set, const TypeDefinition* parent) {
    std::vector<Conflict> conflicts;
    withinSet(conflicts, parent, set);
    for (const auto& conflict : conflicts) {
      auto locations = conflict.fields1;
      locations.insert(locations.end(), conflict.fields2.begin(), conflict.fields2.end());
      reporter_.report("Fields \"" + conflict.key + "\" conflict because " + reasonText(conflict) +
                           ". Use different aliases on the fields to fetch both if this was "
                           "intentional.",
                       std::move(locations));
    }
    for (const auto& selection : set) {
      if (selection.selections.empty()) continue;
      if (selection.kind == Selection::Kind::field) {
        const auto* definition = parent ? schema_.field(*parent, selection.name) : nullptr;
        const auto* type = definition ? schema_.named(definition->type) : nullptr;
        visit(selection.selections, type && type->isComposite() ? type : nullptr);
      } else if (selection.kind == Selection::Kind::inlineFragment) {
        const auto* type =
            selection.typeCondition.empty() ? parent : schema_.type(selection.typeCondition);
        visit(selection.selections, type && type->isComposite() ? type : nullptr);
      }
    }
  }

  void spend(std::size_t units = 1) {
    work_ += units;
    if (work_ > limits_.mergeWork)
      reporter_.abort(
          "Validation aborted: checking that fields which share a response key "
          "can be merged took more than " +
          std::to_string(limits_.mergeWork) +
          " comparisons (this service's field-merging work limit).");
  }

  const FieldsAndFragments& gather(const TypeDefinition* parent,
                                   const std::vector<Selection>& set) {
    auto& cached = cache_[&set];
    if (cached) return *cached;
    cached = std::make_unique<FieldsAndFragments>();
    std::set<std::string> names;
    gatherInto(*cached, names, parent, set);
    return *cached;
  }

  void gatherInto(FieldsAndFragments& out, std::set<std::string>& names,
                  const TypeDefinition* parent, const std::vector<Selection>& set) {
    for (const auto& selection : set) {
      spend();
      switch (selection.kind) {
        case Selection::Kind::field: {
          const auto* definition = parent ? parent->field(selection.name) : nullptr;
          auto* entries = out.find(selection.responseKey());
          if (!entries)
            entries =
                &out.fields.emplace_back(selection.responseKey(), std::vector<FieldEntry>{}).second;
          entries->push_back({parent, &selection, definition});
          break;
        }
        case Selection::Kind::fragmentSpread:
          if (names.insert(selection.name).second) out.fragments.push_back(selection.name);
          break;
        case Selection::Kind::inlineFragment:
          gatherInto(
              out, names,
              selection.typeCondition.empty() ? parent : schema_.type(selection.typeCondition),
              selection.selections);
          break;
      }
    }
  }

  const FieldsAndFragments* fragment(const std::string& name) {
    const auto found = fragments_.find(name);
    if (found == fragments_.end()) return nullptr;
    const auto* type = schema_.type(found->second->typeCondition);
    return &gather(type, found->second->selections);
  }

  void withinSet(std::vector<Conflict>& conflicts, const TypeDefinition* parent,
                 const std::vector<Selection>& set) {
    const auto& own = gather(parent, set);
    for (const auto& [key, entries] : own.fields) within(conflicts, key, entries);
    for (std::size_t i = 0; i < own.fragments.size(); ++i) {
      fieldsAndFragment(conflicts, false, own, own.fragments[i]);
      for (std::size_t j = i + 1; j < own.fragments.size(); ++j)
        betweenFragments(conflicts, false, own.fragments[i], own.fragments[j]);
    }
  }

  // Identical leaf fields cannot conflict with each other, and any conflict one of them has
  // the others have too: they are compared as one, and a conflict counted for each copy.
  static std::string leafKey(const FieldEntry& entry) {
    if (!entry.node->selections.empty()) return {};
    std::string key = entry.node->name + "|" +
                      std::to_string(reinterpret_cast<std::uintptr_t>(entry.parent)) + "|" +
                      std::to_string(reinterpret_cast<std::uintptr_t>(entry.definition));
    std::vector<std::string> arguments;
    for (const auto& argument : entry.node->arguments)
      arguments.push_back(argument.name + ":" + printValue(argument.value));
    std::sort(arguments.begin(), arguments.end());
    for (const auto& argument : arguments) key += "|" + argument;
    return key;
  }

  struct Group {
    const FieldEntry* representative;
    std::vector<const FieldEntry*> members;  ///< in the order written
  };

  static std::vector<Group> groups(const std::vector<FieldEntry>& entries) {
    std::vector<Group> result;
    std::map<std::string, std::size_t> byKey;
    for (const auto& entry : entries) {
      const auto key = leafKey(entry);
      if (!key.empty()) {
        const auto [found, added] = byKey.emplace(key, result.size());
        if (!added) {
          result[found->second].members.push_back(&entry);
          continue;
        }
      }
      result.push_back({&entry, {&entry}});
    }
    return result;
  }

  // A conflict found between two groups, for each pair of their members; within one set,
  // each pair is told in the order its fields are written.
  void add(std::vector<Conflict>& conflicts, const Conflict& found, const Group& a, const Group& b,
           bool written) {
    for (const auto* first : a.members)
      for (const auto* second : b.members) {
        if (conflicts.size() > limits_.errors) return;  // more would only be dropped
        if (written && second < first) {                // the reason is worded in that order too
          if (auto swapped = conflict(false, found.key, *second, *first))
            conflicts.push_back(std::move(*swapped));
          continue;
        }
        auto copy = found;
        copy.fields1.front() = first->node->location;
        copy.fields2.front() = second->node->location;
        conflicts.push_back(std::move(copy));
      }
  }

  void within(std::vector<Conflict>& conflicts, const std::string& key,
              const std::vector<FieldEntry>& entries) {
    if (entries.size() < 2) return;
    const auto list = groups(entries);
    for (std::size_t i = 0; i < list.size(); ++i)
      for (std::size_t j = i + 1; j < list.size(); ++j)
        if (auto found = conflict(false, key, *list[i].representative, *list[j].representative))
          add(conflicts, *found, list[i], list[j], true);
  }

  void between(std::vector<Conflict>& conflicts, bool exclusive, const FieldsAndFragments& a,
               const FieldsAndFragments& b) {
    for (const auto& [key, entries1] : a.fields) {
      const auto* entries2 = const_cast<FieldsAndFragments&>(b).find(key);
      if (!entries2) continue;
      const auto list1 = groups(entries1), list2 = groups(*entries2);
      for (const auto& g1 : list1)
        for (const auto& g2 : list2)
          if (auto found = conflict(exclusive, key, *g1.representative, *g2.representative))
            add(conflicts, *found, g1, g2, false);
    }
  }

  void fieldsAndFragment(std::vector<Conflict>& conflicts, bool exclusive,
                         const FieldsAndFragments& fields, const std::string& name) {
    const auto* other = fragment(name);
    if (!other || other == &fields) return;
    between(conflicts, exclusive, fields, *other);
    for (const auto& referenced : other->fragments) {
      if (compared(referenced, name, exclusive)) continue;
      remember(referenced, name, exclusive);
      fieldsAndFragment(conflicts, exclusive, fields, referenced);
    }
  }

  void betweenFragments(std::vector<Conflict>& conflicts, bool exclusive, const std::string& name1,
                        const std::string& name2) {
    if (name1 == name2 || compared(name1, name2, exclusive)) return;
    remember(name1, name2, exclusive);
    const auto* first = fragment(name1);
    const auto* second = fragment(name2);
    if (!first || !second) return;
    between(conflicts, exclusive, *first, *second);
    for (const auto& referenced : second->fragments)
      betweenFragments(conflicts, exclusive, name1, referenced);
    for (const auto& referenced : first->fragments)
      betweenFragments(conflicts, exclusive, referenced, name2);
  }

  // A pair compared under mutually exclusive parents was compared in the weaker mode only.
  bool compared(const std::string& a, const std::string& b, bool exclusive) const {
    const auto found = pairs_.find(a < b ? std::pair{a, b} : std::pair{b, a});
    if (found == pairs_.end()) return false;
    return exclusive || found->second == exclusive;
  }
  void remember(const std::string& a, const std::string& b, bool exclusive) {
    pairs_[a < b ? std::pair{a, b} : std::pair{b, a}] = exclusive;
  }

  // Wrapper by wrapper from the outside: a list against no list, or non-null against
  // nullable, conflicts; then two different leaf types do.
  static bool typesConflict(std::string_view a, std::string_view b, const Schema& schema) {
    auto outerList = [](std::string_view ref) {
      return !typeref::isNonNull(ref) && typeref::isList(ref);
    };
    while (true) {
      if (outerList(a) || outerList(b) || typeref::isNonNull(a) || typeref::isNonNull(b)) {
        if (outerList(a) != outerList(b) || typeref::isNonNull(a) != typeref::isNonNull(b))
          return true;
        a = typeref::ofType(a);
        b = typeref::ofType(b);
        continue;
      }
      const auto* ta = schema.type(a);
      const auto* tb = schema.type(b);
      if ((ta && ta->isLeaf()) || (tb && tb->isLeaf())) return a != b;
      return false;
    }
  }

  std::optional<Conflict> conflict(bool parentsExclusive, const std::string& key,
                                   const FieldEntry& a, const FieldEntry& b) {
    spend();
    const bool exclusive = parentsExclusive || (a.parent != b.parent && a.parent && b.parent);
    auto make = [&](std::string reason) {
      return Conflict{key, std::move(reason), {}, {a.node->location}, {b.node->location}};
    };
    if (!exclusive) {
      if (a.node->name != b.node->name)
        return make("\"" + a.node->name + "\" and \"" + b.node->name + "\" are different fields");
      if (!sameArguments(*a.node, *b.node)) return make("they have differing arguments");
    }
    if (a.definition && b.definition &&
        typesConflict(a.definition->type, b.definition->type, schema_))
      return make("they return conflicting types \"" + a.definition->type + "\" and \"" +
                  b.definition->type + "\"");
    if (a.node->selections.empty() || b.node->selections.empty()) return std::nullopt;
    const auto* typeA = a.definition ? schema_.named(a.definition->type) : nullptr;
    const auto* typeB = b.definition ? schema_.named(b.definition->type) : nullptr;
    std::vector<Conflict> sub;
    betweenSubSelections(sub, exclusive, typeA, a.node->selections, typeB, b.node->selections);
    if (sub.empty()) return std::nullopt;
    Conflict result{key, {}, {}, {a.node->location}, {b.node->location}};
    for (auto& s : sub) {
      result.fields1.insert(result.fields1.end(), s.fields1.begin(), s.fields1.end());
      result.fields2.insert(result.fields2.end(), s.fields2.begin(), s.fields2.end());
    }
    result.sub = std::move(sub);
    return result;
  }

  void betweenSubSelections(std::vector<Conflict>& conflicts, bool exclusive,
                            const TypeDefinition* type1, const std::vector<Selection>& set1,
                            const TypeDefinition* type2, const std::vector<Selection>& set2) {
    const auto& first = gather(type1, set1);
    const auto& second = gather(type2, set2);
    between(conflicts, exclusive, first, second);
    for (const auto& name : second.fragments) fieldsAndFragment(conflicts, exclusive, first, name);
    for (const auto& name : first.fragments) fieldsAndFragment(conflicts, exclusive, second, name);
    for (const auto& name1 : first.fragments)
      for (const auto& name2 : second.fragments)
        betweenFragments(conflicts, exclusive, name1, name2);
  }

  const Schema& schema_;
  const ValidationLimits& limits_;
  Reporter& reporter_;
  std::map<std::string, const Fragment*> fragments_;
  std::map<const std::vector<Selection>*, std::unique_ptr<FieldsAndFragments>> cache_;
  std::map<std::pair<std::string, std::string>, bool> pairs_;
  std::size_t work_ = 0;
};

}  // namespace

void checkFieldMerging(const Schema& schema, const Document& document,
                       const ValidationLimits& limits, Reporter& reporter) {
  Merging(schema, document, limits, reporter).run(document);
}

}  // namespace sandbox::graphql::detail
