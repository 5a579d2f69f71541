#pragma once
#include <boost/intrusive/circular_list_algorithms.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include "Veltro/Export.h"

namespace Veltro {

/// What an element carries to sit in one list: two pointers, null while in none. An element must
/// be unlinked before it dies; one that is to be in two lists carries two nodes.
class ListLinkNode {
 public:
  ListLinkNode() = default;
  ListLinkNode(ListLinkNode const&) = delete;
  ListLinkNode& operator=(ListLinkNode const&) = delete;

  /// Whether it is in a list.
  bool isLinked() const { return next_ != nullptr; }

 private:
  friend struct ListNodeTraits;
  ListLinkNode* next_ = nullptr;
  ListLinkNode* previous_ = nullptr;
};

/// How the list algorithms reach the pointers.
struct ListNodeTraits {
  using node = ListLinkNode;
  using node_ptr = ListLinkNode*;
  using const_node_ptr = ListLinkNode const*;
  static node_ptr get_next(const_node_ptr n) { return n->next_; }
  static void set_next(node_ptr n, node_ptr next) { n->next_ = next; }
  static node_ptr get_previous(const_node_ptr n) { return n->previous_; }
  static void set_previous(node_ptr n, node_ptr previous) { n->previous_ = previous; }
};

/// The ring of nodes under every list. Owns no element; allocates nothing; every operation but the
/// destructor's is O(1) or goes on to the next element.
class VELTRO_API ListImpl {
 public:
  ListImpl() { Ring::init_header(&header_); }
  ListImpl(ListImpl const&) = delete;
  ListImpl& operator=(ListImpl const&) = delete;

  /// Whether the node marks a place and belongs to no element; iteration skips such nodes.
  virtual bool isBookmark(ListLinkNode const& node) const;

 protected:
  using Ring = boost::intrusive::circular_list_algorithms<ListNodeTraits>;

  /// Unlinks all that is left, so that no node points to a list that is gone.
  virtual ~ListImpl();

  void _linkBack(ListLinkNode& node) { Ring::link_before(&header_, &node); }
  static void _unlink(ListLinkNode& node) {
    Ring::unlink(&node);
    Ring::init(&node);
  }
  ListLinkNode const* _end() const { return &header_; }

  /// The first node behind `node` that belongs to an element, or the end. The list's own type is
  /// given, so that a plain list does not look for bookmarks at all.
  template <class ListT>
  static ListLinkNode const* _elementBehind(ListT const& list, ListLinkNode const* node) {
    do {
      node = ListNodeTraits::get_next(node);
    } while (node != list._end() && list.isBookmark(*node));
    return node;
  }

  /// Throws AssertException with the text of the check.
  [[noreturn]] static void _checkFailed(char const* check, char const* file, char const* function,
                                        int line);

 private:
  ListLinkNode header_;
};

/// Walks a list's elements. The element under it must stay linked until the next step.
template <class ListT>
class ListIterator {
 public:
  /// For the list's begin() and end().
  ListIterator(ListT const& list, ListLinkNode const* node) : list_(&list), node_(node) {}
  typename ListT::Element& operator*() const { return *ListT::_element(node_); }
  ListIterator& operator++() {
    node_ = ListT::_elementBehind(*list_, node_);
    return *this;
  }
  bool operator!=(ListIterator const& other) const { return node_ != other.node_; }

 private:
  ListT const* list_;
  ListLinkNode const* node_;
};

/// A first-in first-out list of elements of type T, linked by their member `ptrToLinkNode`.
template <class T, class Node, Node T::*ptrToLinkNode>
class List final : public ListImpl {
 public:
  /// What is linked.
  using Element = T;

  /// The element must not be linked; throws AssertException if it is.
  void pushBack(T& element) {
    if ((element.*ptrToLinkNode).isLinked()) {
      _checkFailed("!( element.*ptrToLinkNode ).isLinked()", "Veltro/IntrusiveLinkedListBase",
                   __func__, __LINE__);
    }
    _linkBack(element.*ptrToLinkNode);
  }
  /// The element must be in this list.
  void erase(T& element) { _unlink(element.*ptrToLinkNode); }

  /// Null when the list has no element.
  T* front() const {
    ListLinkNode const* const node = _elementBehind(*this, _end());
    return node == _end() ? nullptr : _element(node);
  }
  /// Whether there is no element.
  bool empty() const { return front() == nullptr; }

  ListIterator<List> begin() const { return {*this, _elementBehind(*this, _end())}; }
  ListIterator<List> end() const { return {*this, _end()}; }

  /// False: every node is an element's.
  bool isBookmark(ListLinkNode const& /*node*/) const override { return false; }

 private:
  friend class ListImpl;
  friend class ListIterator<List>;
  static T* _element(ListLinkNode const* node) {
    return boost::intrusive::get_parent_from_member<T>(
        static_cast<Node*>(const_cast<ListLinkNode*>(node)), ptrToLinkNode);
  }
};

}  // namespace Veltro
