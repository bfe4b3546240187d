// The main queue alone, on its draining thread and beside others.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ZembraPlatform/MainQueue.h>

namespace zembra {
namespace {

using namespace std::chrono_literals;

class MainQueueTest : public testing::Test {
protected:
    MainQueue& queue = MainQueue::shared();
    std::string log;

    std::function<void()> writes(char letter) {
        return [this, letter] { log += letter; };
    }

    bool isReadable() const {
        pollfd descriptor{queue.fileDescriptor(), POLLIN, 0};
        return ::poll(&descriptor, 1, 0) == 1;
    }
};

TEST_F(MainQueueTest, DrainRunsWhatWaitedAndTheDescriptorIsReadableWhileTasksWait) {
    queue.post(writes('a'));
    EXPECT_TRUE(isReadable());  // also for a task that was there before anyone asked for the descriptor
    queue.post({});
    queue.post([this] { EXPECT_FALSE(isReadable()); });
    EXPECT_EQ(queue.pendingCount(), 2u);
    EXPECT_EQ(queue.drain(), 2u);
    queue.post([this] { queue.post(writes('c')); });
    queue.post(writes('b'));
    EXPECT_EQ(queue.drain(), 2u);
    EXPECT_EQ(log, "ab");
    EXPECT_TRUE(isReadable());
    queue.runFor(0ms);
    EXPECT_FALSE(isReadable());
    EXPECT_EQ(queue.drain(), 0u);
    EXPECT_EQ(log, "abc");
}

TEST_F(MainQueueTest, TasksMayDrainAndMayThrow) {
    queue.post([this] {
        queue.post(writes('b'));
        EXPECT_EQ(queue.drain(), 2u);  // what waits now: a and b
        throw 1;
    });
    queue.post(writes('a'));
    EXPECT_THROW(queue.drain(), int);
    queue.post(writes('c'));
    EXPECT_EQ(queue.drain(), 1u);
    EXPECT_EQ(log, "abc");
}

TEST_F(MainQueueTest, RunsEndWithAStopTheirConditionOrTheirDuration) {
    const auto stop = [this] { queue.stop(); };
    const auto never = [] { return false; };
    queue.post(stop);
    queue.post(writes('a'));
    queue.run();
    stop();
    queue.run();  // ends with the stop before it
    EXPECT_TRUE(queue.runUntil([] { return true; }, 1min));
    EXPECT_EQ(log, "");
    EXPECT_TRUE(queue.runUntil([this] { return log == "a"; }, std::chrono::milliseconds::max()));
    queue.post(stop);
    EXPECT_FALSE(queue.runUntil(never, 1min));
    queue.post([&] { stop(), log += 'b'; });
    EXPECT_TRUE(queue.runUntil([this] { return log == "ab"; }, 1min));  // and so does the stop
    queue.post(writes('c'));
    queue.runFor(0ms);
    EXPECT_EQ(log, "abc");
    for (const auto duration : {-1ms, 1ms})
        EXPECT_FALSE(queue.runUntil(never, duration));
    // Tasks that keep coming do not keep it from ending.
    std::function<void()> endless = [&] { queue.post(endless); };
    queue.post(endless);
    EXPECT_FALSE(queue.runUntil(never, 20ms));
}

TEST_F(MainQueueTest, OtherThreadsWakeAWaitingRun) {
    std::atomic<int> ran = 0;
    std::jthread poster([&] {
        for (int before = 0; before < 100; ++before) {
            queue.post([&ran] { ++ran, ran.notify_one(); });
            ran.wait(before);
        }
    });
    EXPECT_TRUE(queue.runUntil([&] { return ran == 100; }, 1min));
    std::jthread stopper([&] { queue.stop(); });
    EXPECT_FALSE(queue.runUntil([] { return false; }, 1min));
    EXPECT_FALSE(isReadable());
}

TEST_F(MainQueueTest, WhatATaskHoldsMayPostAsItGoes) {
    const auto posting = [this] {
        return std::shared_ptr<void>(nullptr, [this](void*) { queue.post(writes('b')); });
    };
    queue.post([held = posting()] {});
    EXPECT_EQ(queue.drain(), 1u);
    queue.post([held = posting()] {});
    EXPECT_TRUE(queue.runUntil([this] { return log == "bb"; }, 1min));
}

TEST_F(MainQueueTest, AForkedChildHasAQueueOfItsOwn) {
    queue.post(writes('a'));
    const int descriptor = queue.fileDescriptor();
    const pid_t child = ::fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        bool ok = queue.pendingCount() == 0 && !isReadable() && queue.fileDescriptor() == descriptor;
        queue.post(writes('b'));
        ok = ok && isReadable() && queue.drain() == 1 && log == "b" && !isReadable();
        ::_exit(ok ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(isReadable());  // the child took nothing from this one
    EXPECT_EQ(queue.drain(), 1u);
    EXPECT_EQ(log, "a");
}

}  // namespace
}  // namespace zembra
