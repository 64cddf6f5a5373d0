// Memory and object lifetime: counted blocks, pools, user counts, sole-owner pointers, NoDelete.
#include <Infrastructure/QelCore/QelCore.h>

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

// The tests ask the heap for impossible sizes: the sanitizer runtimes must answer with null, as
// the plain heap does, instead of ending the program.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}

using namespace Qel::Core;

namespace {

// Counts constructions and destructions of Watched objects.
struct Tally
{
    std::atomic<int> constructed{0};
    std::atomic<int> destroyed{0};
    int Alive() const { return constructed - destroyed; }
};

class Watched
{
public:
    Watched(Tally& tally, int value = 0) : m_pTally(&tally), m_iValue(value) { ++tally.constructed; }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched() { ++m_pTally->destroyed; }
    int Value() const { return m_iValue; }

private:
    Tally* m_pTally;
    int m_iValue;
};

std::uintptr_t Address(const void* p)
{
    return reinterpret_cast<std::uintptr_t>(p);
}

// A pool of raw slots for testing the base: objects are trivially destroyed, but counted.
class RawPool : public ObjectPoolBase
{
public:
    RawPool(unsigned long long nObjectSize, unsigned long long nObjectsPerBlock)
        : ObjectPoolBase(nObjectSize, nObjectsPerBlock)
    {
    }
    ~RawPool() = default;
    using ObjectPoolBase::Deallocate;
    int destroyed = 0;

protected:
    void DestroyObject(void*) override { ++destroyed; }
};

bool Contains(const std::vector<std::string>& texts, const std::string& part)
{
    return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) { return text.find(part) != std::string::npos; });
}

} // namespace

// ---- MemoryBlock ----

TEST(MemoryBlock, DefaultAndZeroSizeBlocksAreNull)
{
    MemoryBlock none;
    EXPECT_TRUE(none.IsNULL());
    EXPECT_EQ(none.GetBlock(), nullptr);
    EXPECT_EQ(none.Size(), 0U);
    MemoryBlock zero(0);
    EXPECT_TRUE(zero.IsNULL());

    // Copies and releases of a null block do nothing.
    MemoryBlock copy(none);
    copy = zero;
    copy.Release();
    EXPECT_TRUE(copy.IsNULL());
}

TEST(MemoryBlock, CopiesShareTheMemoryUntilTheLastHolderGoes)
{
    MemoryBlock original(100);
    ASSERT_FALSE(original.IsNULL());
    EXPECT_EQ(original.Size(), 100U);
    EXPECT_EQ(Address(original.GetBlock()) % alignof(std::max_align_t), 0U);
    std::memset(original.GetBlock(), 'a', 100);

    auto copy = std::make_unique<MemoryBlock>(original);
    EXPECT_EQ(copy->GetBlock(), original.GetBlock());
    EXPECT_EQ(copy->Size(), 100U);
    static_cast<char*>(copy->GetBlock())[99] = 'z';
    EXPECT_EQ(static_cast<char*>(original.GetBlock())[99], 'z');

    // The original goes; the copy keeps the memory (the address sanitizer watches the access).
    original.Release();
    EXPECT_TRUE(original.IsNULL());
    EXPECT_EQ(original.Size(), 0U);
    original.Release();
    EXPECT_EQ(static_cast<char*>(copy->GetBlock())[0], 'a');

    // Assignment lets go of the old buffer and shares the new one; to itself it changes nothing.
    MemoryBlock other(8);
    MemoryBlock holder(other);
    holder = *copy;
    EXPECT_EQ(holder.GetBlock(), copy->GetBlock());
    holder = holder;
    EXPECT_EQ(holder.GetBlock(), copy->GetBlock());
    copy.reset();
    EXPECT_EQ(static_cast<char*>(holder.GetBlock())[99], 'z');
    // Both buffers are freed with their last holders; the leak checker sees the rest.
}

TEST(MemoryBlock, ImpossibleSizesRaiseAllocationFailed)
{
    try {
        MemoryBlock huge(1ULL << 62);
        ADD_FAILURE() << "no error";
    } catch (AllocationFailed& error) {
        EXPECT_EQ(error.GetMessageA(), "Attempt to allocate 4611686018427387920 byte memory block failed");
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.MemoryBlock");
    }
    // A size whose allocation goes beyond 64 bits never reaches the heap.
    try {
        MemoryBlock beyond(~0ULL);
        ADD_FAILURE() << "no error";
    } catch (AllocationFailed& error) {
        EXPECT_EQ(error.GetMessageA(), "Attempt to allocate 18446744073709551631 byte memory block failed");
    }
}

TEST(MemoryBlock, HoldersOnManyThreadsCopyAndRelease)
{
    MemoryBlock shared(64);
    std::memset(shared.GetBlock(), 7, 64);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([own = MemoryBlock(shared)] {
            for (int i = 0; i < 5000; ++i) {
                MemoryBlock copy(own);
                MemoryBlock assigned;
                assigned = copy;
                EXPECT_EQ(static_cast<const char*>(assigned.GetBlock())[63], 7);
            }
        });
    }
    shared.Release();
    for (std::thread& thread : threads) thread.join();
}

// ---- ObjectPool ----

TEST(ObjectPool, ZeroObjectSizeRaisesInvalidParameter)
{
    try {
        RawPool pool(0, 10);
        ADD_FAILURE() << "no error";
    } catch (InvalidParameter& error) {
        EXPECT_EQ(error.GetMessageA(), "Invalid Parameter: p_ObjectSize = 0");
        EXPECT_EQ(error.GetData(InvalidParameter::sNAME), "p_ObjectSize");
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Core.ObjectPool");
    }
}

TEST(ObjectPool, BlocksHoldAtLeastFiftyObjectsInAscendingOrder)
{
    struct Record
    {
        double a, b, c;
    };
    ObjectPool<Record> pool(10);
    EXPECT_EQ(pool.GetObjectsPerBlock(), 50U);
    EXPECT_EQ(pool.GetObjectSize(), sizeof(Record));
    EXPECT_EQ(pool.GetBlockCount(), 0U);

    std::vector<Record*> records;
    for (int i = 0; i < 50; ++i) records.push_back(pool.New());
    EXPECT_EQ(pool.GetBlockCount(), 1U);
    for (std::size_t i = 1; i < records.size(); ++i) {
        EXPECT_EQ(Address(records[i]), Address(records[0]) + i * sizeof(Record));
    }
    records.push_back(pool.New());
    EXPECT_EQ(pool.GetBlockCount(), 2U);

    // A larger wish is honoured.
    ObjectPool<Record> larger(120);
    EXPECT_EQ(larger.GetObjectsPerBlock(), 120U);
    for (Record* record : records) pool.Delete(record);
}

TEST(ObjectPool, FreedMemoryIsReusedInTheOrderItWasFreed)
{
    RawPool pool(16, 50);
    std::vector<void*> slots;
    for (int i = 0; i < 50; ++i) slots.push_back(pool.AllocateObjectMemory());
    pool.Deallocate(slots[7]);
    pool.Deallocate(slots[3]);
    pool.Deallocate(slots[20]);
    EXPECT_EQ(pool.destroyed, 3);
    EXPECT_EQ(pool.AllocateObjectMemory(), slots[7]);
    EXPECT_EQ(pool.AllocateObjectMemory(), slots[3]);
    EXPECT_EQ(pool.AllocateObjectMemory(), slots[20]);
    EXPECT_EQ(pool.GetBlockCount(), 1U);
    // Null goes nowhere and destroys nothing.
    pool.Deallocate(nullptr);
    EXPECT_EQ(pool.destroyed, 3);
}

TEST(ObjectPool, ObjectsAreAlignedForTheirType)
{
    struct alignas(32) Wide
    {
        double values[5];
    };
    ObjectPool<Wide> wide;
    EXPECT_EQ(wide.GetObjectSize(), 64U);
    std::vector<Wide*> objects;
    for (int i = 0; i < 120; ++i) objects.push_back(wide.New());
    EXPECT_EQ(wide.GetBlockCount(), 3U);
    for (Wide* object : objects) EXPECT_EQ(Address(object) % 32, 0U);
    for (Wide* object : objects) wide.Delete(object);

    struct alignas(std::max_align_t) Max
    {
        char c;
    };
    ObjectPool<Max> maxAligned;
    for (int i = 0; i < 60; ++i) EXPECT_EQ(Address(maxAligned.New()) % alignof(std::max_align_t), 0U);

    // The untyped pool rounds odd sizes up, so that any type of that size fits.
    RawPool raw(10, 50);
    EXPECT_EQ(raw.GetObjectSize(), alignof(std::max_align_t));
    for (int i = 0; i < 60; ++i) EXPECT_EQ(Address(raw.AllocateObjectMemory()) % alignof(std::max_align_t), 0U);
}

TEST(ObjectPool, ObjectsAreConstructedAndDestroyedOnce)
{
    Tally tally;
    {
        ObjectPool<Watched> pool;
        Watched* first = pool.New(tally, 1);
        EXPECT_EQ(first->Value(), 1);
        {
            std::unique_ptr<Watched, ObjectPool<Watched>::Deleter> owned(pool.New(tally, 2), pool.GetDeleter());
            std::shared_ptr<Watched> shared(pool.New(tally, 3), pool.GetDeleter());
            std::shared_ptr<Watched> again = shared;
        }
        EXPECT_EQ(tally.destroyed, 2);
        pool.Delete(first);
        pool.Delete(nullptr);
        EXPECT_EQ(tally.constructed, 3);
        EXPECT_EQ(tally.destroyed, 3);
    }

    // A constructor that throws gives the memory back without a destructor call.
    struct Refuses
    {
        explicit Refuses(Tally& tally)
        {
            ++tally.constructed;
            throw std::runtime_error("refused");
        }
        ~Refuses() { ADD_FAILURE() << "destroyed"; }
    };
    ObjectPool<Refuses> refusing;
    EXPECT_THROW(refusing.New(tally), std::runtime_error);
    EXPECT_THROW(refusing.New(tally), std::runtime_error);
}

TEST(ObjectPool, FourThreadsShareOnePool)
{
    struct Item
    {
        int owner;
        int serial;
    };
    ObjectPool<Item> pool(10);
    std::vector<std::thread> threads;
    std::atomic<int> clashes{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::vector<Item*> held;
            for (int round = 0; round < 200; ++round) {
                for (int i = 0; i < 30; ++i) held.push_back(pool.New(Item{t, round * 100 + i}));
                // An object that another thread got too would show another owner or serial.
                for (std::size_t i = 0; i < held.size(); ++i) {
                    if (held[i]->owner != t || held[i]->serial != round * 100 + static_cast<int>(i)) ++clashes;
                    pool.Delete(held[i]);
                }
                held.clear();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(clashes, 0);
    // At most 120 objects were out at once.
    EXPECT_LE(pool.GetBlockCount(), 3U);
}

// ---- RefCountedObject ----

TEST(RefCountedObject, CountsUsersWithoutOwningTheObject)
{
    RefCountedObject object;
    EXPECT_EQ(object.GetRefCount(), 0);
    EXPECT_EQ(object.AddRef(), 1);
    EXPECT_EQ(object.AddRef(), 2);
    EXPECT_EQ(object.Release(), 1);
    EXPECT_EQ(object.Release(), 0);
    EXPECT_EQ(object.GetRefCount(), 0);
}

TEST(RefCountedObject, CountingBelowZeroAndDestroyingWhileCountedAssert)
{
    QelTest::DebugCapture capture;
    {
        RefCountedObject object;
        EXPECT_EQ(object.Release(), -1);
        EXPECT_TRUE(Contains(capture.Texts(), "Failed Assertion(m_refCount >= 0)"));
        EXPECT_FALSE(Contains(capture.Texts(), "Failed Assertion(m_refCount == 0)"));
    }
    EXPECT_TRUE(Contains(capture.Texts(), "Failed Assertion(m_refCount == 0)"));
}

TEST(RefCountedObject, CountedFromManyThreads)
{
    RefCountedObject object;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                object.AddRef();
                object.Release();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(object.GetRefCount(), 0);
}

TEST(RefCountedObject, PollForZeroRefCountWaitsForTheLastUser)
{
    RefCountedObject object;
    // Zero from the start.
    EXPECT_TRUE(object.PollForZeroRefCount(Elapse(2, Elapse::Seconds), Elapse(10, Elapse::MilliSeconds)));

    // The last user leaves on another thread.
    object.AddRef();
    object.AddRef();
    std::thread user([&] {
        QelSleep(Elapse(150, Elapse::MilliSeconds));
        object.Release();
        QelSleep(Elapse(150, Elapse::MilliSeconds));
        object.Release();
    });
    EXPECT_TRUE(object.PollForZeroRefCount(Elapse(2, Elapse::Seconds), Elapse(100, Elapse::MilliSeconds)));
    user.join();

    // A user that stays.
    object.AddRef();
    EXPECT_FALSE(object.PollForZeroRefCount(Elapse(2, Elapse::Seconds), Elapse(100, Elapse::MilliSeconds)));
    EXPECT_EQ(object.Release(), 0);
}

// ---- container_ptr ----

TEST(ContainerPtr, DestroysItsObjectOnceWithTheLastHolder)
{
    Tally tally;
    {
        container_ptr<Watched> pointer(new Watched(tally, 5));
        EXPECT_EQ(pointer->Value(), 5);
        EXPECT_EQ((*pointer).Value(), 5);
    }
    EXPECT_EQ(tally.destroyed, 1);

    {
        container_ptr<Watched> source(new Watched(tally));
        Watched* object = source.get();
        container_ptr<Watched> copy(source);
        EXPECT_EQ(source.get(), nullptr);
        EXPECT_EQ(copy.get(), object);
        container_ptr<Watched> assigned;
        assigned = copy;
        EXPECT_EQ(copy.get(), nullptr);
        EXPECT_EQ(assigned.get(), object);
        EXPECT_EQ(tally.destroyed, 1);
    }
    EXPECT_EQ(tally.destroyed, 2);

    // After release the object outlives the pointer.
    Watched* kept = nullptr;
    {
        container_ptr<Watched> pointer(new Watched(tally));
        kept = pointer.release();
        EXPECT_EQ(pointer.get(), nullptr);
    }
    EXPECT_EQ(tally.destroyed, 2);
    delete kept;
    EXPECT_EQ(tally.Alive(), 0);
}

TEST(ContainerPtr, AssignmentDestroysTheOldObjectAtOnce)
{
    Tally tally;
    container_ptr<Watched> holder(new Watched(tally, 1));
    container_ptr<Watched> other(new Watched(tally, 2));
    holder = other;
    EXPECT_EQ(tally.destroyed, 1);
    EXPECT_EQ(holder->Value(), 2);
    EXPECT_EQ(other.get(), nullptr);

    container_ptr<Watched>& self = holder;
    holder = self;
    EXPECT_EQ(tally.destroyed, 1);
    EXPECT_EQ(holder->Value(), 2);

    // Two holders of the same object (made by hand): the source lets go, nothing is destroyed.
    container_ptr<Watched> twin(holder.get());
    holder = twin;
    EXPECT_EQ(twin.get(), nullptr);
    EXPECT_EQ(tally.destroyed, 1);
    holder = container_ptr<Watched>();
    EXPECT_EQ(tally.destroyed, 2);
}

TEST(ContainerPtr, EachObjectInContainersIsDestroyedOnce)
{
    Tally tally;
    {
        std::vector<container_ptr<Watched>> vector;
        for (int i = 0; i < 100; ++i) vector.emplace_back(new Watched(tally, 100 - i));
        vector.insert(vector.begin(), container_ptr<Watched>(new Watched(tally, 1000)));
        vector.erase(vector.begin() + 10, vector.begin() + 20);
        EXPECT_EQ(tally.destroyed, 10);
        std::sort(vector.begin(), vector.end(), [](const auto& a, const auto& b) { return a->Value() < b->Value(); });
        EXPECT_EQ(vector.front()->Value(), 1);
        EXPECT_EQ(vector.back()->Value(), 1000);
        vector.resize(50);
        EXPECT_EQ(tally.destroyed, 51);
        std::vector<container_ptr<Watched>> moved = std::move(vector);
        EXPECT_EQ(tally.Alive(), 50);

        std::set<container_ptr<Watched>> set;
        for (int i = 0; i < 50; ++i) set.insert(container_ptr<Watched>(new Watched(tally, i)));
        set.erase(set.begin());
        EXPECT_EQ(tally.destroyed, 52);
        auto node = set.extract(set.begin());
        container_ptr<Watched> taken(node.value());
        EXPECT_EQ(tally.destroyed, 52);

        std::map<int, container_ptr<Watched>> map;
        for (int i = 0; i < 50; ++i) map[i] = container_ptr<Watched>(new Watched(tally, i));
        map[7] = container_ptr<Watched>(new Watched(tally, 70));
        EXPECT_EQ(tally.destroyed, 53);
        map.erase(8);
        EXPECT_EQ(tally.destroyed, 54);
        std::map<int, container_ptr<Watched>> swapped;
        swapped.swap(map);
        EXPECT_EQ(tally.Alive(), 50 + 48 + 1 + 49);
    }
    EXPECT_EQ(tally.constructed, 101 + 50 + 51);
    EXPECT_EQ(tally.destroyed, tally.constructed);
}

// ---- NoDelete ----

TEST(NoDelete, SharedPointerWithNoDeleteRefersWithoutOwning)
{
    Tally tally;
    {
        auto owner = std::make_shared<Watched>(tally);
        {
            std::shared_ptr<Watched> reference(owner.get(), NoDelete());
            std::set<std::shared_ptr<Watched>> set{owner, reference};
            EXPECT_EQ(set.size(), 1U);
        }
        EXPECT_EQ(tally.destroyed, 0);
        Watched onStack(tally);
        {
            std::shared_ptr<Watched> reference(&onStack, NoDelete());
        }
        EXPECT_EQ(tally.destroyed, 0);
    }
    EXPECT_EQ(tally.destroyed, 2);
}
