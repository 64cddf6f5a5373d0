// Stress: many threads on shared locks, with every count balanced at the end. These run under the
// thread sanitizer too.
#include <Infrastructure/QelCore/QelCore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace Qel::Core;

TEST(LockStress, MixedLockTryAndTimedLockOnSharedMutexes)
{
    constexpr int kThreads = 4;
    constexpr int kOperations = 100000;
    Mutex mutexes[2];
    long long counters[2] = {0, 0};
    std::atomic<long long> done[2] = {0, 0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kOperations; ++i) {
                int which = (i + t) & 1;
                Mutex& mutex = mutexes[which];
                bool held = true;
                switch ((i * 7 + t) % 3) {
                case 0: mutex.Lock(); break;
                case 1: held = mutex.TryLock(); break;
                default: held = mutex.TryLock(Elapse(1, Elapse::MilliSeconds)); break;
                }
                if (!held) continue;
                if (i % 16 == 0) { // nest now and then
                    mutex.Lock();
                    ++counters[which];
                    mutex.Unlock();
                } else {
                    ++counters[which];
                }
                ++done[which];
                mutex.Unlock();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int m = 0; m < 2; ++m) {
        EXPECT_EQ(counters[m], done[m].load());
        EXPECT_FALSE(mutexes[m].IsLocked());
    }
    EXPECT_GT(done[0].load() + done[1].load(), kThreads * kOperations / 3);
}

TEST(LockStress, ReadersAndWritersWithUpgrades)
{
    ReadersWriterMutex mutex;
    long long value = 0;
    long long shadow = 0;
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3000; ++i) {
                if ((i + t) % 4 == 0) {
                    ReaderLock read(mutex);
                    WriterLock write(mutex); // upgrade
                    ++value;
                    ++shadow;
                } else if ((i + t) % 4 == 1) {
                    WriterLock write(mutex);
                    ReaderLock read(mutex); // a writer may read
                    ++value;
                    ++shadow;
                } else if (mutex.TimedWaitReaderLock(Elapse(50, Elapse::MilliSeconds))) {
                    if (value != shadow) ++bad;
                    mutex.ReaderUnlock();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(value, 6000);
    EXPECT_TRUE(mutex.TryWaitWriterLock());
    mutex.WriterUnlock();
}

TEST(LockStress, ProducersAndConsumersOnASemaphore)
{
    Semaphore semaphore;
    constexpr int kPerProducer = 20000;
    std::atomic<long long> consumed{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < 2; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i) semaphore.Post(1 + (i % 2));
        });
    for (int c = 0; c < 2; ++c)
        threads.emplace_back([&] {
            // 2 producers post 1.5 units on average each time.
            for (int i = 0; i < kPerProducer * 3 / 2; ++i) {
                if (i % 3 == 0) semaphore.Wait();
                else while (!semaphore.TimedWait(Elapse(10, Elapse::MilliSeconds))) {
                }
                ++consumed;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(consumed.load(), 2LL * kPerProducer * 3 / 2);
    EXPECT_EQ(semaphore.GetCount(), 0u);
    EXPECT_FALSE(semaphore.TryWait());
}
