// Property references (JSON Pointer form), leaves, and the leaf-wise merge of a tree.
#include <algorithm>

#include "properties_body.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelcore {

namespace {

constexpr const char* source_file = "code\\platform\\zelcore\\src\\property_reference";

void collect_leaves(const properties& tree, const std::string& prefix,
                    std::list<std::string>& out) {
  for (const auto& [key, value] : tree) {
    if (!value) continue;
    std::string ref = prefix;
    ref += '/';
    ref += property_reference_escape(key);
    if (value->kind() == property::kind_properties)
      collect_leaves(static_cast<const properties&>(*value), ref, out);
    else
      out.push_back(std::move(ref));
  }
}

bool has_leaf(const properties& tree) {
  for (const auto& [key, value] : tree) {
    if (!value) continue;
    if (value->kind() != property::kind_properties ||
        has_leaf(static_cast<const properties&>(*value)))
      return true;
  }
  return false;
}

const properties* as_tree(const property_ptr& p) {
  return p && p->kind() == property::kind_properties ? static_cast<const properties*>(p.get())
                                                     : nullptr;
}

// The tree in `slot`, made safe to change in place: the child itself when this tree is its only
// owner (no count is touched), else a (cheap, shared-content) copy, or a new tree when the slot
// holds none, stored in the slot first.
properties* child_to_change(property_ptr& slot) {
  const properties* tree = as_tree(slot);
  if (tree && tree->refcount() == 1) return const_cast<properties*>(tree);
  auto own =
      tree ? zelbase::make_refcount<properties>(*tree) : zelbase::make_refcount<properties>();
  properties* child = own.get();
  slot = std::move(own);
  return child;
}

}  // namespace

std::string property_reference_escape(const std::string& key) {
  if (key.find_first_of("~/") == std::string::npos) return key;
  std::string out;
  out.reserve(key.size() + 4);
  for (const char c : key) {
    if (c == '~')
      out += "~0";
    else if (c == '/')
      out += "~1";
    else
      out.push_back(c);
  }
  return out;
}

std::vector<std::string> property_reference_split(const std::string& ref) {
  std::vector<std::string> keys;
  if (ref.empty()) return keys;
  if (ref[0] != '/')
    zelbase::es::arg::raise(source_file, __LINE__,
                            zelbase::string_with_format(
                                "property reference '%s' does not start with '/'", ref.c_str()));
  std::string key;
  for (std::size_t i = 1; i <= ref.size(); ++i) {
    if (i == ref.size() || ref[i] == '/') {
      keys.push_back(std::move(key));
      key.clear();
    } else if (ref[i] == '~') {
      const char next = i + 1 < ref.size() ? ref[i + 1] : '\0';
      if (next != '0' && next != '1')
        zelbase::es::arg::raise(
            source_file, __LINE__,
            zelbase::string_with_format("property reference '%s' has a '~' not followed by 0 or 1",
                                        ref.c_str()));
      key.push_back(next == '0' ? '~' : '/');
      ++i;
    } else {
      key.push_back(ref[i]);
    }
  }
  return keys;
}

void properties::get_leaf_references(std::list<std::string>& references) const {
  collect_leaves(*this, std::string(), references);
}

property_ptr properties::get_referenced_property(const std::string& ref) const {
  const std::vector<std::string> keys = property_reference_split(ref);
  if (keys.empty()) return property_ptr();
  const properties* tree = this;
  for (std::size_t i = 0; i + 1 < keys.size(); ++i) {
    tree = as_tree(tree->get_property(keys[i]));
    if (!tree) return property_ptr();
  }
  return tree->get_property(keys.back());
}

void properties::set_referenced_property(const std::string& ref, const property_ptr& value) {
  set_at_reference(ref, value, false);
}

void properties::set_create_referenced_property(const std::string& ref, const property_ptr& value) {
  set_at_reference(ref, value, true);
}

void properties::set_at_reference(const std::string& ref, const property_ptr& value, bool create) {
  const std::vector<std::string> keys = property_reference_split(ref);
  if (keys.empty())
    zelbase::es::arg::raise(source_file, __LINE__,
                            "property reference '' names the tree itself and cannot be set");
  if (!create) {
    // Check the parents first, so that a failed set changes nothing.
    const properties* tree = this;
    for (std::size_t i = 0; i + 1 < keys.size(); ++i) {
      tree = as_tree(tree->get_property(keys[i]));
      if (tree) continue;
      if (!value) return;
      zelbase::es::arg::raise(
          source_file, __LINE__,
          zelbase::string_with_format("property reference '%s' has no properties at '%s'",
                                      ref.c_str(), keys[i].c_str()));
    }
  }
  // Walk down, making each level writable, then store the value in the last one.
  properties* tree = this;
  for (std::size_t i = 0; i + 1 < keys.size(); ++i) {
    tree = child_to_change((*tree)[keys[i]]);
  }
  if (value)
    (*tree)[keys.back()] = value;
  else
    tree->erase(keys.back());
}

void properties::merge_leaves(const properties& update) {
  if (!update.body_) return;
  // Both trees are sorted: each key of the update is searched from where the last one was
  // found, first among the next few entries by their orders alone (an update's keys are usually
  // close together in a record), then by halving. This tree is detached only when the update
  // has a leaf.
  slots* all = nullptr;
  std::size_t from = 0;
  for (const detail::slot& change : update.body_->entries) {
    const property_ptr& value = change.second;
    if (!value) continue;
    const properties* nested = as_tree(value);
    if (nested && !has_leaf(*nested)) continue;
    if (!all) all = &mutable_entries();
    const std::string& key = change.first();
    const detail::slot* const last = all->data() + all->size();
    const detail::slot* found = all->data() + from;
    const detail::slot* const near = found + std::min<std::ptrdiff_t>(16, last - found);
    while (found != near && found->order < change.order) ++found;
    found = found == near && near != last
                ? detail::entry_lower_bound(found, last, key, change.order)
                : detail::entry_past_same_order_before(found, last, key, change.order);
    auto it = all->begin() + (found - all->data());
    // A new key starts empty: sharing the update's subtree would bring its leafless subtrees.
    // Its key node is the update's own.
    if (it == all->end() || !detail::same_key(*it, change))
      it = all->insert(it, {change.order, change.key, property_ptr()});
    from = static_cast<std::size_t>(it - all->begin()) + 1;
    if (!nested) {
      it->second = value;
      continue;
    }
    child_to_change(it->second)->merge_leaves(*nested);
  }
}

}  // namespace zelcore
