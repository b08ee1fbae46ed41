// Lists of shared objects that have their own isEqual() and description(): the comparison and
// the log text every layer uses for them, so that the stores and the manager agree on both.
#ifndef ZBIAP_FOUNDATION_OBJECT_LISTS_H_
#define ZBIAP_FOUNDATION_OBJECT_LISTS_H_

#include <optional>
#include <string>
#include <vector>

namespace zbiap {

// Element by element, in order, with the objects' own equality; the same pointer is equal.
template <typename Ptr>
bool sameObjects(const std::vector<Ptr>& a, const std::vector<Ptr>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == b[i]) continue;
    if (!a[i] || !b[i] || !a[i]->isEqual(*b[i])) return false;
  }
  return true;
}

// As above; a list that is not there is never equal, not even to an empty one.
template <typename Ptr>
bool sameObjects(const std::optional<std::vector<Ptr>>& a, const std::vector<Ptr>& b) {
  return a && sameObjects(*a, b);
}

// "(\n    a,\n    b\n)": one element's description per indented line, as a log line shows a list.
template <typename Ptr>
std::string describeObjects(const std::vector<Ptr>& list) {
  std::string text = "(\n";
  for (size_t i = 0; i < list.size(); ++i) {
    text += "    ";
    text += list[i] ? list[i]->description() : std::string("(null)");
    text += i + 1 < list.size() ? ",\n" : "\n";
  }
  text += ")";
  return text;
}

}  // namespace zbiap

#endif  // ZBIAP_FOUNDATION_OBJECT_LISTS_H_
