#include "support/SerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace velquin::support {
namespace {

TEST(SerialQueue, RunsBlocksInOrderAndSyncWaits) {
  SerialQueue queue("order");
  std::vector<int> seen;  // touched only by queue blocks
  for (int i = 0; i < 100; ++i) queue.async([&, i] { seen.push_back(i); });
  std::vector<int> copy;
  queue.sync([&] { copy = seen; });
  ASSERT_EQ(copy.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(copy[static_cast<std::size_t>(i)], i);
}

TEST(SerialQueue, KnowsItsOwnBlocksAndNestsSyncWithoutDeadlock) {
  SerialQueue queue("nest");
  SerialQueue other("other");
  EXPECT_FALSE(queue.isCurrent());
  bool inner = false;
  bool outerCurrentInOther = false;
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    other.sync([&] {
      outerCurrentInOther = queue.isCurrent() && other.isCurrent();
      queue.sync([&] { inner = true; });  // would wait on itself if not inline
    });
  });
  EXPECT_TRUE(inner);
  EXPECT_TRUE(outerCurrentInOther);

  std::promise<bool> onQueue;
  queue.async([&] { onQueue.set_value(queue.isCurrent() && !other.isCurrent()); });
  EXPECT_TRUE(onQueue.get_future().get());
}

TEST(SerialQueue, BlocksNeverOverlapAcrossThreads) {
  SerialQueue queue("overlap");
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  int total = 0;  // touched only by queue blocks
  auto block = [&] {
    if (running.fetch_add(1) != 0) overlapped = true;
    ++total;
    running.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        if ((i + t) % 3 == 0) {
          queue.async(block);
        } else {
          queue.sync(block);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  int result = 0;
  queue.sync([&] { result = total; });
  EXPECT_EQ(result, 2000);
  EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, SurvivesThrowingBlocksAndDrainsOnDestruction) {
  std::atomic<int> ran{0};
  {
    SerialQueue queue("throwing");
    queue.sync([] { throw std::runtime_error("boom"); });
    queue.async([] { throw 42; });
    for (int i = 0; i < 10; ++i) queue.async([&] { ++ran; });
  }
  EXPECT_EQ(ran.load(), 10);
}

TEST(SerialQueue, AnOwnerDestroyedByItsOwnBlockLetsTheWorkerFinishSafely) {
  // The owner's last reference goes inside a block of the owner's queue, as
  // when a reply handler holds the last reference to the request manager.
  // The worker must neither touch the destroyed queue object nor stop
  // before running what was queued behind that block.
  struct Owner {
    SerialQueue queue{"owned"};
  };
  auto owner = std::make_shared<Owner>();
  std::weak_ptr<Owner> watch = owner;
  SerialQueue* queue = &owner->queue;
  std::promise<bool> ranAfter;
  std::promise<void> go;
  queue->async([&go] { go.get_future().wait(); });  // holds the worker until all is queued
  queue->async([last = std::move(owner)]() mutable { last.reset(); });
  queue->async([&] { ranAfter.set_value(watch.expired()); });
  go.set_value();
  EXPECT_TRUE(ranAfter.get_future().get());
}

TEST(SerialQueue, CapturesThatDestroyTheOwnerGoBeforeTheWorkerLocksAgain) {
  // The last reference may also sit in a block's captures, released when
  // the worker drops the block after running it.
  struct Owner {
    SerialQueue queue{"captured"};
  };
  auto owner = std::make_shared<Owner>();
  std::weak_ptr<Owner> watch = owner;
  SerialQueue* queue = &owner->queue;
  std::promise<void> go;
  std::promise<bool> ranAfter;
  queue->async([&go] { go.get_future().wait(); });
  queue->async([keep = owner] {});
  queue->async([&] { ranAfter.set_value(watch.expired()); });
  owner.reset();
  go.set_value();
  EXPECT_TRUE(ranAfter.get_future().get());
}

}  // namespace
}  // namespace velquin::support
