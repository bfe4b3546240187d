// The main queue alone, on its draining thread and beside others.

#include <atomic>
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

    void write(char letter) {
        queue.post([this, letter] { log += letter; });
    }

    bool isReadable() const {
        pollfd descriptor{queue.fileDescriptor(), POLLIN, 0};
        return ::poll(&descriptor, 1, 0) == 1;
    }
};

bool never() {
    return false;
}

TEST_F(MainQueueTest, DrainRunsWhatWaitedAndTheDescriptorIsReadableWhileTasksWait) {
    write('a');
    EXPECT_TRUE(isReadable());  // also for a task that was there before anyone asked for the descriptor
    queue.post({});
    queue.post([this] {
        EXPECT_FALSE(isReadable());
        write('b');
    });
    EXPECT_EQ(queue.pendingCount(), 2u);
    EXPECT_EQ(queue.drain(), 2u);
    EXPECT_EQ(log, "a");
    EXPECT_TRUE(isReadable());
    queue.runFor(0ms);
    EXPECT_FALSE(isReadable());
    EXPECT_EQ(log, "ab");
}

TEST_F(MainQueueTest, TasksMayDrainAndMayThrow) {
    queue.post([this] {
        write('b');
        EXPECT_EQ(queue.drain(), 2u);  // what waits now: a and b
        write('c');
        throw 1;
    });
    write('a');
    EXPECT_THROW(queue.drain(), int);
    EXPECT_EQ(queue.drain(), 1u);
    EXPECT_EQ(log, "abc");
}

TEST_F(MainQueueTest, RunsEndWithAStopTheirConditionOrTheirDuration) {
    const auto stop = [this] { queue.stop(); };
    queue.post(stop);
    write('a');
    queue.run();
    stop();
    queue.run();  // ends with the stop before it
    EXPECT_TRUE(queue.runUntil([] { return true; }, 1min));
    EXPECT_EQ(log, "");
    EXPECT_TRUE(queue.runUntil([this] { return log == "a"; }, 1min));
    queue.post(stop);
    EXPECT_FALSE(queue.runUntil(never, 1min));
    write('b');
    queue.runFor(-1ms);
    EXPECT_EQ(log, "ab");
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
    EXPECT_TRUE(queue.runUntil([&] { return ran == 100; }, std::chrono::milliseconds::max()));
    for (int round = 0; round < 10; ++round) {
        const std::jthread stopper([&] { queue.stop(); });
        queue.run();
        EXPECT_FALSE(isReadable());
    }
}

TEST_F(MainQueueTest, WhatATaskHoldsMayPostAsItGoes) {
    const auto postHolder = [this] {
        const std::shared_ptr<void> held(nullptr, [this](void*) { write('b'); });
        queue.post([held] {});
    };
    postHolder();
    EXPECT_EQ(queue.drain(), 1u);
    postHolder();
    EXPECT_TRUE(queue.runUntil([this] { return log == "bb"; }, 1min));
}

TEST_F(MainQueueTest, AForkedChildHasAQueueOfItsOwn) {
    write('a');
    const int descriptor = queue.fileDescriptor();
    const pid_t child = ::fork();
    if (child == 0) {
        bool ok = queue.pendingCount() == 0 && !isReadable() && queue.fileDescriptor() == descriptor;
        write('b');
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
