// Object pools: fixed-size pieces of MemoryBlocks, handed out and taken back under a lock.
//
// ObjectPoolBase carves blocks of at least 50 objects each into slots and keeps the addresses of
// free slots in a first-in first-out list: memory is handed out from the front and goes back to
// the end, so it is reused in the order in which it was freed. Blocks are never given back before
// the pool ends. In the common case an allocation takes the lock and moves one list node; the
// list nodes are recycled, so neither allocation nor release calls the heap once a block is there.
//
// Alignment. A block's memory is aligned to alignof(std::max_align_t) (see MemoryBlock). A pool
// has an alignment (a power of two): the object size is rounded up to a multiple of it and the
// first slot of each block lies on it, so every slot is aligned to it. ObjectPool<T> uses
// alignof(T), over-aligned types included; the base alone defaults to alignof(std::max_align_t),
// so that any type of the given size fits.
//
// Objects that are not given back before the pool ends are not destroyed; their memory goes with
// the pool. The pool does not check that an address given back belongs to it.
//
// Threads: allocation and release may be called from any thread.
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/MemoryBlock.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstddef>
#include <list>
#include <new>
#include <utility>
#include <vector>

namespace Qel::Core {

class QEL_CORE_API ObjectPoolBase
{
public:
    // `nObjectSize` bytes per object, rounded up to `nAlignment`; at least 50 objects per block,
    // whatever `nObjectsPerBlock` asks. An object size of 0 raises InvalidParameter
    // ("p_ObjectSize"), an alignment that is no power of two InvalidParameter ("p_Alignment"),
    // both under "Qel.Core.ObjectPool"; where the raise returns, the pool goes on with that size,
    // or with alignof(std::max_align_t). No block is allocated yet.
    ObjectPoolBase(unsigned long long nObjectSize, unsigned long long nObjectsPerBlock,
                   unsigned long long nAlignment = alignof(std::max_align_t));
    ObjectPoolBase(const ObjectPoolBase&) = delete;
    ObjectPoolBase& operator=(const ObjectPoolBase&) = delete;

    // Uninitialised memory for one object, aligned to the pool's alignment; a new block is added
    // when no slot is free. A block that cannot be allocated raises AllocationFailed (from
    // MemoryBlock); where that raise returns, the result is null.
    void* AllocateObjectMemory();

    // Bytes per object (after rounding), objects per block, alignment of every object.
    unsigned long long GetObjectSize() const { return m_nObjectSize; }
    unsigned long long GetObjectsPerBlock() const { return m_nObjectsPerBlock; }
    unsigned long long GetAlignment() const { return m_nAlignment; }
    // Blocks allocated so far.
    std::size_t GetBlockCount() const;

protected:
    // Not virtual: a pool is never deleted through its base.
    ~ObjectPoolBase();

    // Runs the destructor of the object at `pObject`.
    virtual void DestroyObject(void* pObject) = 0;

    // Destroys the object (DestroyObject, outside the lock), then puts its memory at the end of
    // the free list. A null address does nothing.
    void Deallocate(void* pObject);
    // Puts the memory at the end of the free list without destroying anything: for memory whose
    // object was never constructed. A null address does nothing.
    void DeallocateMemory(void* pObject);

private:
    // Appends a block and the addresses of its slots, ascending, to the free list; the caller
    // holds m_Lock. Leaves everything as it was when it raises.
    void AddMemoryBlock();

    std::vector<MemoryBlock> m_Blocks;       // every block the pool got
    Mutex m_Lock;                            // guards blocks and lists
    std::list<void*> m_FreeList;             // addresses of free objects, oldest first
    unsigned long long m_nObjectSize;        // bytes per object, a multiple of m_nAlignment
    unsigned long long m_nObjectsPerBlock;   // objects per block, at least 50
    unsigned long long m_nAlignment;         // alignment of every object, a power of two
    std::list<void*> m_SpareNodes;           // list nodes of handed-out objects, for reuse
};

// The typed pool: constructs a T in the pool's memory and destroys it on the way back.
template <typename T>
class ObjectPool : public ObjectPoolBase
{
public:
    // Gives a T back to its pool; for std::unique_ptr and std::shared_ptr.
    struct Deleter
    {
        ObjectPool* pPool;
        void operator()(T* pObject) const { pPool->Delete(pObject); }
    };

    explicit ObjectPool(unsigned long long nObjectsPerBlock = 50)
        : ObjectPoolBase(sizeof(T), nObjectsPerBlock, alignof(T))
    {
    }
    ~ObjectPool() = default;

    // A T built from `args` in pool memory. When the constructor throws, the memory goes back to
    // the pool and the exception passes on. Null only where a failed block allocation's raise
    // returned.
    template <typename... Args>
    T* New(Args&&... args)
    {
        void* pMemory = AllocateObjectMemory();
        if (pMemory == nullptr) return nullptr;
        try {
            return ::new (pMemory) T(std::forward<Args>(args)...);
        } catch (...) {
            DeallocateMemory(pMemory);
            throw;
        }
    }

    // Destroys the object and gives its memory back. Null does nothing.
    void Delete(T* pObject) { Deallocate(pObject); }

    // A deleter bound to this pool.
    Deleter GetDeleter() { return Deleter{this}; }

protected:
    void DestroyObject(void* pObject) override { static_cast<T*>(pObject)->~T(); }
};

} // namespace Qel::Core
