#include "services/tlsd/block.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace tlsd {
namespace {

TEST(Block, HoldsMemoryOnlyWhileSomethingIsOnItsWay) {
  BlockPool pool;
  Block block(pool);
  EXPECT_TRUE(block.empty());
  EXPECT_TRUE(block.held().empty());
  EXPECT_EQ(block.room().size(), blockBytes);
  EXPECT_EQ(pool.kept(), 0U);
  block.settle();
  EXPECT_EQ(pool.kept(), 1U);
  block.room()[0] = 7;
  block.added(1);
  EXPECT_EQ(pool.kept(), 0U);
  block.taken(1);
  EXPECT_EQ(pool.kept(), 1U);
}

TEST(Block, GivesBytesInTheirOrder) {
  BlockPool pool;
  Block block(pool);
  for (std::uint8_t value = 0; value < 10; ++value) {
    block.room()[0] = value;
    block.added(1);
  }
  block.taken(4);
  ASSERT_EQ(block.held().size(), 6U);
  EXPECT_EQ(block.held()[0], 4);
  EXPECT_EQ(block.room().size(), blockBytes - 10);
  block.settle();
  EXPECT_EQ(block.held().size(), 6U);
}

TEST(Block, HasNoRoomWhenItIsFull) {
  BlockPool pool;
  Block block(pool);
  block.added(block.room().size());
  EXPECT_TRUE(block.room().empty());
  block.taken(blockBytes);
  EXPECT_EQ(block.room().size(), blockBytes);
}

TEST(Block, GivesItsMemoryBackAtTheEnd) {
  BlockPool pool;
  {
    Block block(pool);
    block.added(block.room().size() / 2);
  }
  EXPECT_EQ(pool.kept(), 1U);
}

TEST(BlockPool, KeepsAFewBlocksOnly) {
  BlockPool pool;
  {
    std::vector<std::unique_ptr<Block>> blocks;
    for (std::size_t i = 0; i < 3 * keptBlocks; ++i)
      (void)blocks.emplace_back(std::make_unique<Block>(pool))->room();
  }
  EXPECT_EQ(pool.kept(), keptBlocks);
}

}  // namespace
}  // namespace tlsd
