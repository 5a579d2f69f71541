#pragma once
#include "Veltro/IntrusiveLinkedListBase.h"

namespace Veltro {

/// A node of a list that may hold bookmarks: knows whether it is one.
class BookmarkListLinkNode : public ListLinkNode {
 public:
  BookmarkListLinkNode() = default;

 private:
  template <class T, class Node, Node T::*ptrToLinkNode>
  friend class BookmarkList;
  explicit BookmarkListLinkNode(bool bookmark) : bookmark_(bookmark) {}
  bool const bookmark_ = false;
};

/// A List that can be walked while its elements come and go, over any length of time: the walk's
/// place is a node of its own in the list. Any number of walks may be under way.
template <class T, class Node, Node T::*ptrToLinkNode>
class BookmarkList final : public ListImpl {
 public:
  /// What is linked.
  using Element = T;
  class Bookmark;

  /// The element must not be linked; throws AssertException if it is.
  void pushBack(T& element) {
    Node& link = element.*ptrToLinkNode;
    if (link.isLinked()) {
      _checkFailed("!link.isLinked()", "Veltro/IntrusiveBookmarkLinkedList", __func__, __LINE__);
    }
    _linkBack(link);
  }
  /// The element must be in this list. A walk whose turn it was goes on to the one behind it.
  void erase(T& element) { _unlink(element.*ptrToLinkNode); }

  /// Null when only bookmarks are left.
  T* front() const {
    ListLinkNode const* const node = _elementBehind(*this, _end());
    return node == _end() ? nullptr : _element(node);
  }
  /// Whether there is no element.
  bool empty() const { return front() == nullptr; }

  ListIterator<BookmarkList> begin() const { return {*this, _elementBehind(*this, _end())}; }
  ListIterator<BookmarkList> end() const { return {*this, _end()}; }

  /// Whether the node is a walk's place and no element.
  bool isBookmark(ListLinkNode const& node) const override {
    return static_cast<Node const&>(node).bookmark_;
  }

 private:
  friend class ListImpl;
  friend class ListIterator<BookmarkList>;
  static T* _element(ListLinkNode const* node) {
    return boost::intrusive::get_parent_from_member<T>(
        static_cast<Node*>(const_cast<ListLinkNode*>(node)), ptrToLinkNode);
  }
};

/// A walk over the elements that survives the removal of any of them and reaches those appended
/// meanwhile. Must not outlive its list, unless it has ended.
template <class T, class Node, Node T::*ptrToLinkNode>
class BookmarkList<T, Node, ptrToLinkNode>::Bookmark final {
 public:
  /// Stands nowhere until start(); must go before the list.
  explicit Bookmark(BookmarkList& list) : list_(list) {}
  Bookmark(Bookmark const&) = delete;
  Bookmark& operator=(Bookmark const&) = delete;
  ~Bookmark() { end(); }

  /// Starts over at the first element.
  void start() {
    end();
    Ring::link_after(const_cast<ListLinkNode*>(list_._end()), &node_);
  }
  /// Whether a walk is under way.
  bool walking() const { return node_.isLinked(); }
  /// The next element; null, and the walk has ended, when there is none. Only while walking.
  T* next() {
    ListLinkNode const* const node = _elementBehind(list_, &node_);
    end();
    if (node == list_._end()) return nullptr;
    Ring::link_after(const_cast<ListLinkNode*>(node), &node_);
    return _element(node);
  }
  /// Ends the walk, if any.
  void end() {
    if (node_.isLinked()) _unlink(node_);
  }

 private:
  BookmarkList& list_;
  Node node_{true};
};

}  // namespace Veltro
