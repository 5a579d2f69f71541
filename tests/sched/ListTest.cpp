#include "SchedSupport.h"

namespace Veltro {
namespace {
struct Item {
  ListLinkNode plain;
  BookmarkListLinkNode marked;
};
using Plain = List<Item, ListLinkNode, &Item::plain>;
using Marked = BookmarkList<Item, BookmarkListLinkNode, &Item::marked>;

TEST(ListTest, walksSurviveWhatHappensAroundThem) {
  Item a, b, c, d;
  Marked list;
  for (Item* const item : {&a, &b, &c}) list.pushBack(*item);
  Marked::Bookmark first(list), second(list);
  first.start();
  EXPECT_EQ(&a, first.next());
  second.start();  // two places side by side, before and behind elements that come and go
  EXPECT_EQ(&a, second.next());
  list.erase(a);
  EXPECT_EQ(&b, first.next());
  list.erase(b);
  EXPECT_EQ(&c, second.next());
  list.pushBack(d);
  EXPECT_EQ(&d, second.next());
  EXPECT_EQ(&c, list.front());
  list.pushBack(a);
  list.erase(c);
  EXPECT_EQ(&d, first.next());
  EXPECT_EQ(&a, first.next());
  EXPECT_EQ(nullptr, first.next());
  for (Item* const item : {&d, &a}) list.erase(*item);
  EXPECT_TRUE(list.empty() && second.walking() && !first.walking());
  EXPECT_EQ(nullptr, second.next());
}

TEST(ListTest, linkedTwiceIsRefusedAndADeadListLetsGo) {
  Item item;
  {
    Plain plain;
    Marked marked;
    plain.pushBack(item);
    marked.pushBack(item);
    EXPECT_EQ("!( element.*ptrToLinkNode ).isLinked()", assertionOf([&] { plain.pushBack(item); }));
    EXPECT_EQ("!link.isLinked()", assertionOf([&] { marked.pushBack(item); }));
  }
  EXPECT_FALSE(item.plain.isLinked() || item.marked.isLinked());
}
}  // namespace
}  // namespace Veltro
