#include <gtest/gtest.h>

#include <memory>

#include "Veltro/Debug.h"
#include "tests/support/RecordingHandler.h"

namespace Veltro {
namespace {

template <typename Holder>
struct HolderTest : testing::Test {};
using Holders = testing::Types<Debuggable, DebugSupport>;
TYPED_TEST_SUITE(HolderTest, Holders, );

// Ownership shows in the sanitizer's report: a handler freed twice, never, or used after.
TYPED_TEST(HolderTest, borrowersShareAndOwnersHaveTheirOwn) {
  RecordingHandler handler;
  TypeParam const borrower(handler);
  auto owner = std::make_unique<TypeParam>(std::string("HolderTest"));
  EXPECT_EQ(&handler, &TypeParam(borrower).debugHandler());

  TypeParam copy(*owner);
  EXPECT_NE(&owner->debugHandler(), &copy.debugHandler());
  owner.reset();
  EXPECT_EQ("HolderTest", copy.debugHandler().name());

  TypeParam target(std::string("Target"));
  target = copy;
  EXPECT_EQ("HolderTest", target.debugHandler().name());
  EXPECT_NE(&copy.debugHandler(), &target.debugHandler());
  target = *&target;
  EXPECT_EQ("HolderTest", target.debugHandler().name());
  target = borrower;
  EXPECT_EQ(&handler, &target.debugHandler());
  target = copy;
  EXPECT_EQ("HolderTest", target.debugHandler().name());

  TypeParam const ofItsOwn(target.debugHandler());
  target = ofItsOwn;
  EXPECT_EQ(&ofItsOwn.debugHandler(), &target.debugHandler());
  EXPECT_EQ("HolderTest", target.debugHandler().name());

  TypeParam second(target.debugHandler());
  second = target;
  EXPECT_NE(&second.debugHandler(), &target.debugHandler()) << "the copy of an owner outlives it";
}

}  // namespace
}  // namespace Veltro
