#include <algorithm>
#include <memory>
#include <random>

#include "SchedSupport.h"

namespace Veltro {
namespace {
struct Item {
  ListLinkNode plain;
  BookmarkListLinkNode marked;
};
using Plain = List<Item, ListLinkNode, &Item::plain>;
using Marked = BookmarkList<Item, BookmarkListLinkNode, &Item::marked>;

// Walks come and go while elements do, against a vector and one index for each walk.
TEST(BookmarkListTest, walksSurviveWhatHappensAroundThem) {
  std::mt19937 random(20240611);
  std::vector<std::unique_ptr<Item>> items(12);
  for (auto& item : items) item = std::make_unique<Item>();
  Marked list;
  std::vector<Item*> model;
  struct Walk {
    explicit Walk(Marked& l) : bookmark(l) {}
    Marked::Bookmark bookmark;
    std::size_t next = 0;
  };
  std::vector<std::unique_ptr<Walk>> walks;
  for (int i = 0; i < 3; ++i) walks.push_back(std::make_unique<Walk>(list));
  for (int step = 0; step < 20000; ++step) {
    SCOPED_TRACE(step);
    Item& item = *items[random() % items.size()];
    Walk& walk = *walks[random() % walks.size()];
    switch (random() % 4) {
      case 0:
        if (item.marked.isLinked()) {
          auto const at = static_cast<std::size_t>(std::find(model.begin(), model.end(), &item) -
                                                   model.begin());
          for (auto& w : walks) w->next -= w->next > at ? 1 : 0;
          model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
          list.erase(item);
        }
        break;
      case 1:
        if (!item.marked.isLinked()) {
          model.push_back(&item);
          list.pushBack(item);
        }
        break;
      case 2:
        if (!walk.bookmark.walking()) {
          walk.bookmark.start();
          walk.next = 0;
        } else if (walk.next == model.size()) {
          ASSERT_EQ(nullptr, walk.bookmark.next());
          ASSERT_FALSE(walk.bookmark.walking());
        } else {
          ASSERT_EQ(model[walk.next++], walk.bookmark.next());
        }
        break;
      default:
        if (random() % 8 == 0) walk.bookmark.end();
    }
    std::vector<Item*> seen;
    for (Item& present : list) seen.push_back(&present);
    ASSERT_EQ(model, seen);
    ASSERT_EQ(model.empty(), list.empty());
  }
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
  EXPECT_FALSE(item.plain.isLinked());
  EXPECT_FALSE(item.marked.isLinked());
}
}  // namespace
}  // namespace Veltro
