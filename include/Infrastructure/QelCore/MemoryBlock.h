// MemoryBlock: a reference-counted raw buffer shared by all its copies.
//
// One heap allocation holds the count and the data together. The 32-bit count lies in the first
// 4 bytes of the allocation; the usable memory starts nBLOCK_OFFSET bytes (alignof(max_align_t),
// 16 on x86-64) behind the start, so that it is aligned for any type a caller puts in it, not just
// for 4-byte types. Copies share the buffer and raise the count; the last holder to let go frees
// the allocation.
//
// Threads: the count changes atomically, so copies on different threads may be made and released
// at will (a copy reads its source, which must not be changed by another thread at the same
// time). The memory itself has no lock.
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/QelCoreExport.h"

#include <cstddef>
#include <cstdint>

namespace Qel::Core {

class QEL_CORE_API MemoryBlock
{
public:
    // Bytes from the start of the allocation to the usable memory; the count lies in the first 4.
    static constexpr std::size_t nBLOCK_OFFSET = alignof(std::max_align_t);

    // A block of `nSize` usable bytes, uninitialised, aligned to nBLOCK_OFFSET; size 0 gives a null
    // block. When the heap refuses, raises AllocationFailed "Attempt to allocate <n> byte memory
    // block failed" under "Qel.Core.MemoryBlock", <n> being the size including the count header
    // (nSize + nBLOCK_OFFSET); where the raise returns, the block stays null.
    explicit MemoryBlock(unsigned long long nSize = 0);
    // Shares the buffer of `other` and raises its count.
    MemoryBlock(const MemoryBlock& other) noexcept;
    // Assignment to itself does nothing; otherwise the old buffer is released first, then shared.
    MemoryBlock& operator=(const MemoryBlock& other) noexcept;
    // Releases the buffer.
    virtual ~MemoryBlock();

    // The usable memory; null for a null block.
    void* GetBlock() const { return m_pBlock; }
    // Usable bytes; 0 for a null block.
    unsigned long long Size() const { return m_nSize; }
    // True when the block has no buffer.
    bool IsNULL() const { return m_pBlock == nullptr; }

    // Lets go of the buffer: the count goes down atomically and the last holder frees the
    // allocation. Afterwards the block is null, so that a second Release does nothing.
    void Release() noexcept;

private:
    void* m_pAllocation;          // the whole allocation; null for a null block
    void* m_pBlock;               // the usable memory, nBLOCK_OFFSET bytes into the allocation
    std::int32_t* m_pRefCount;    // the count, in the first 4 bytes of the allocation
    unsigned long long m_nSize;   // usable bytes
};

} // namespace Qel::Core
