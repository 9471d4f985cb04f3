#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>

#include "tests/support/virtual-slot.h"
#include "win-cf/placeholder-info.h"
#include "win-cf/placeholder-meta.h"
#include "win-cf/placeholder.h"

// The order of virtual operations and of fields is part of what other code is built against.
namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::PlaceholderBase;
using corvdrive::cloud_filter::PlaceholderInfoBase;
using corvdrive::cloud_filter::PlaceholderInfoWinCF;
using corvdrive::cloud_filter::PlaceholderMetaBase;
using corvdrive::cloud_filter::PlaceholderMetaWinCF;
using corvdrive::cloud_filter::PlaceholderWinCF;

static_assert(std::is_abstract_v<PlaceholderBase>);
static_assert(std::has_virtual_destructor_v<PlaceholderBase>);
static_assert(std::is_base_of_v<PlaceholderBase, PlaceholderWinCF>);
static_assert(!std::is_abstract_v<PlaceholderWinCF>);
static_assert(std::is_base_of_v<PlaceholderInfoBase, PlaceholderInfoWinCF>);
static_assert(std::has_virtual_destructor_v<PlaceholderInfoBase>);
static_assert(std::is_base_of_v<PlaceholderMetaBase, PlaceholderMetaWinCF>);

#if !defined(_MSC_VER)
TEST(PlaceholderClassTest, HasItsVirtualOperationsInTheirOrder) {
  const auto first = VirtualSlot(&PlaceholderBase::Open);
  EXPECT_EQ(VirtualSlot(&PlaceholderBase::Hydrate), first + 1);
  EXPECT_EQ(VirtualSlot(&PlaceholderBase::HydrateAll), first + 2);
  EXPECT_EQ(VirtualSlot(&PlaceholderBase::Dehydrate), first + 3);
  EXPECT_EQ(VirtualSlot(&PlaceholderBase::IsFullyHydrated), first + 4);
  EXPECT_EQ(VirtualSlot(&PlaceholderBase::ConvertToPlaceholder), first + 5);
  EXPECT_EQ(VirtualSlot(&PlaceholderBase::RevertToNormal), first + 6);
  // Both forms of the destructor stand in front.
  EXPECT_EQ(first, 2);
}
#endif

TEST(PlaceholderClassTest, HoldsAPathAndAHandle) {
  EXPECT_EQ(sizeof(PlaceholderWinCF), sizeof(void*) + sizeof(std::string) + sizeof(void*));
}

TEST(PlaceholderMetaClassTest, HasItsFieldsInTheirOrder) {
  const PlaceholderMetaWinCF meta;
  const auto offset = [&meta](const auto& field) {
    return reinterpret_cast<std::uintptr_t>(&field) - reinterpret_cast<std::uintptr_t>(&meta);
  };
  EXPECT_EQ(offset(meta.isEmpty), 8u);
  EXPECT_EQ(offset(meta.lastAccessTime), 16u);
  EXPECT_EQ(offset(meta.lastWriteTime), 24u);
  EXPECT_EQ(offset(meta.creationTime), 32u);
  EXPECT_EQ(offset(meta.changeTime), 40u);
  EXPECT_EQ(offset(meta.fileSize), 48u);
  EXPECT_EQ(offset(meta.isDirectory), 56u);
}

}  // namespace
}  // namespace nimbra_test
