#include "mr1w_lock.h"

#include "tests/support/support.h"
#include "util/clock.h"

// Kept because callers' time limits are set by it: the last wait is never followed by a look.
TEST(MR1WLockTest, WriterLooksEvery100MsAndGivesUp)
{
    MR1WLock lock;
    const auto failsAfter = [&lock](unsigned int budget) {
        const auto start = Clock::MonotonicNs();
        EXPECT_FALSE(lock.LockForWrite(budget));
        return (Clock::MonotonicNs() - start) / Clock::kNsPerMs;
    };
    lock.LockForRead();
    EXPECT_LT(failsAfter(100), 90);
    EXPECT_GE(failsAfter(250), 200);
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        lock.UnlockForRead();
        lock.UnlockForRead();  // one too many has no effect
    });
    EXPECT_GE(failsAfter(150), 100);  // the reader has left meanwhile
    reader.join();
    EXPECT_TRUE(lock.LockForWrite(0));
    lock.UnlockForWrite();
    lock.LockForRead();
    EXPECT_FALSE(lock.LockForWrite(0));
}

// A steady stream of readers must not keep the writer out, nor a failed writer the readers.
TEST(MR1WLockTest, WaitingWriterHoldsNewReadersBack)
{
    MR1WLock lock;
    lock.LockForRead();
    std::atomic<bool> entered{false};
    std::thread writer([&] { EXPECT_FALSE(lock.LockForWrite(400)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::thread reader([&] {
        lock.LockForRead();
        entered = true;
        lock.UnlockForRead();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(entered);
    writer.join();
    reader.join();
    EXPECT_TRUE(entered);
}
