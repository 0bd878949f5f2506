// The main queue: order of tasks, timers on a manual clock, and the host
// context form.
#include <gtest/gtest.h>
#include <glib.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "velquin/MainQueue.h"

namespace {

using velquin::MainQueue;
using namespace std::chrono_literals;

// Drains everything posted so far.
void settle(MainQueue& queue) { queue.sync([] {}); }

TEST(MainQueue, RunsTasksInPostingOrderFromManyThreads) {
  MainQueue queue;
  std::vector<int> seen;  // touched only on the queue
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < 250; ++i) queue.async([&seen, t, i] { seen.push_back(t * 1000 + i); });
    });
  }
  for (auto& p : posters) p.join();
  settle(queue);
  ASSERT_EQ(seen.size(), 1000u);
  // Each poster's tasks keep their relative order.
  std::vector<int> last(4, -1);
  for (int v : seen) {
    EXPECT_GT(v % 1000, last[v / 1000]);
    last[v / 1000] = v % 1000;
  }
}

TEST(MainQueue, TaskPostedFromTheQueueRunsAfterTheCurrentOne) {
  MainQueue queue;
  std::vector<int> order;
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    queue.async([&] { order.push_back(2); });
    order.push_back(1);
  });
  settle(queue);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_FALSE(queue.isCurrent());
}

TEST(MainQueue, TimersFollowAManualClock) {
  MainQueue queue;
  std::atomic<MainQueue::Clock::time_point> now{MainQueue::Clock::time_point{}};
  queue.setNowFunction([&] { return now.load(); });

  std::atomic<int> once{0}, repeated{0}, cancelled{0};
  queue.after(30s, [&] { ++once; });
  queue.every(60s, [&] { ++repeated; });
  auto id = queue.after(10s, [&] { ++cancelled; });
  queue.cancel(id);

  auto advance = [&](std::chrono::seconds by) {
    now = now.load() + by;
    queue.fireDueTimers();
    settle(queue);
  };
  advance(29s);
  EXPECT_EQ(once, 0);
  advance(1s);
  EXPECT_EQ(once, 1);
  advance(30s);
  EXPECT_EQ(repeated, 1);
  advance(60s);
  advance(60s);
  EXPECT_EQ(repeated, 3);
  EXPECT_EQ(once, 1);
  EXPECT_EQ(cancelled, 0);
}

TEST(MainQueue, RealTimersFire) {
  MainQueue queue;
  std::promise<void> fired;
  queue.after(20ms, [&] { fired.set_value(); });
  EXPECT_EQ(fired.get_future().wait_for(5s), std::future_status::ready);
}

TEST(MainQueue, RunsOnAHostContext) {
  GMainContext* context = g_main_context_new();
  {
    MainQueue queue(context);
    bool ran = false;
    queue.async([&] { ran = true; });
    EXPECT_FALSE(ran);
    while (!ran) g_main_context_iteration(context, TRUE);
    EXPECT_TRUE(ran);
  }
  g_main_context_unref(context);
}

}  // namespace
