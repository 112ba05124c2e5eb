// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/listing_cache.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/tarnd/booted_test.h"

namespace tarnd {
namespace {

using namespace std::chrono_literals;

class ListingCacheTest : public BootedTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(BootedTest::SetUp());
    const Task task(service_identity());
    const ActAs act(task);
    ASSERT_EQ(uk_node_at("/", &directory_), 0);
  }
  void TearDown() override {
    {
      const Task task(service_identity());
      const ActAs act(task);
      uk_node_put(directory_, 1);
    }
    BootedTest::TearDown();
  }
  ListingCache::Drop count() {
    return [this](uk_node *node) { dropped_ += node == directory_; };
  }

  uk_node *directory_ = nullptr;
  std::atomic<int> dropped_ = 0;
};

TEST_F(ListingCacheTest, what_was_listed_within_the_time_may_be_kept) {
  ListingCache cache(1h, count());
  EXPECT_TRUE(cache.enabled());
  EXPECT_FALSE(cache.opened(directory_));  // nothing was listed yet
  EXPECT_FALSE(cache.opened(directory_));
  cache.begun(directory_);
  cache.released(directory_);
  cache.released(directory_);
  EXPECT_TRUE(cache.opened(directory_));
  cache.released(directory_);
  EXPECT_EQ(dropped_, 0);
}

TEST_F(ListingCacheTest, without_a_time_nothing_is_kept) {
  ListingCache cache(0s, count());
  EXPECT_FALSE(cache.enabled());
  cache.opened(directory_);
  cache.begun(directory_);
  EXPECT_FALSE(cache.opened(directory_));
}

TEST_F(ListingCacheTest, an_old_listing_of_an_open_directory_is_dropped_once) {
  ListingCache cache(40ms, count());
  cache.opened(directory_);
  cache.begun(directory_);
  const auto limit = ListingCache::Clock::now() + 30s;
  while (dropped_ == 0 && ListingCache::Clock::now() < limit) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(dropped_, 1);
  EXPECT_FALSE(cache.opened(directory_));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(dropped_, 1);
  cache.begun(directory_);  // listed again: gets old again
  while (dropped_ == 1 && ListingCache::Clock::now() < limit) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(dropped_, 2);
}

TEST_F(ListingCacheTest, an_old_listing_of_a_closed_directory_is_forgotten) {
  ListingCache cache(20ms, count());
  cache.opened(directory_);
  cache.begun(directory_);
  cache.released(directory_);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(dropped_, 0);
  EXPECT_FALSE(cache.opened(directory_));
}

}  // namespace
}  // namespace tarnd
