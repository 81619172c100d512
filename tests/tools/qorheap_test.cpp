#include "qorheap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>

namespace {

constexpr std::uint64_t kBlock = 8 << 20;

// Keeps the compiler from dropping a block nobody reads.
void keep(const void* block) { asm volatile("" : : "r"(block) : "memory"); }

TEST(HeapFigure, RisesByABlockWhileItIsHeldAndFallsBackWhenItIsFreed) {
  std::uint64_t before = 0;
  ASSERT_TRUE(qorheap::inUseBytes(before));
  EXPECT_GT(before, 0u);

  std::unique_ptr<char[]> block(new char[kBlock]);
  std::memset(block.get(), 1, kBlock);
  keep(block.get());
  std::uint64_t held = 0;
  ASSERT_TRUE(qorheap::inUseBytes(held));
  EXPECT_GE(held, before + kBlock) << before << " before";

  block.reset();
  std::uint64_t after = 0;
  ASSERT_TRUE(qorheap::inUseBytes(after));
  EXPECT_LE(after + kBlock, held) << before << " before, " << held << " held";
}

}  // namespace
