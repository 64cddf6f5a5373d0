// The counted buffer: one allocation holding the count header and the usable memory.
#include "Infrastructure/QelCore/MemoryBlock.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>

namespace Qel::Core {

namespace {

const char* const sLOG_NAME = "Qel.Core.MemoryBlock";

// Decimal text of a 128-bit count: the allocation size of a request near 2^64 goes beyond 64 bits
// and the message still tells it as it is.
std::string ToDecimal(unsigned __int128 value)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(value % 10)));
        value /= 10;
    } while (value != 0);
    return digits;
}

std::atomic_ref<std::int32_t> CountOf(std::int32_t* pRefCount)
{
    return std::atomic_ref<std::int32_t>(*pRefCount);
}

} // namespace

MemoryBlock::MemoryBlock(unsigned long long nSize)
    : m_pAllocation(nullptr), m_pBlock(nullptr), m_pRefCount(nullptr), m_nSize(0)
{
    if (nSize == 0) return;

    // The allocation is rounded up to a whole number of alignment units (aligned_alloc wants
    // that) and must not wrap around.
    constexpr unsigned long long nMaxSize = std::numeric_limits<std::size_t>::max() - 2 * nBLOCK_OFFSET;
    void* pAllocation = nullptr;
    if (nSize <= nMaxSize) {
        std::size_t nTotal = static_cast<std::size_t>(nSize) + nBLOCK_OFFSET;
        nTotal = (nTotal + nBLOCK_OFFSET - 1) / nBLOCK_OFFSET * nBLOCK_OFFSET;
        // aligned_alloc rather than malloc: not every allocator (sanitizer runtimes among them)
        // aligns plain malloc memory to alignof(max_align_t).
        pAllocation = std::aligned_alloc(nBLOCK_OFFSET, nTotal);
    }
    if (pAllocation == nullptr) {
        const unsigned __int128 nRequested = static_cast<unsigned __int128>(nSize) + nBLOCK_OFFSET;
        QEL_RAISE_ERROR(AllocationFailed(ToDecimal(nRequested) + " byte memory block"), sLOG_NAME);
        return;
    }

    m_pAllocation = pAllocation;
    m_pRefCount = ::new (pAllocation) std::int32_t(1);
    m_pBlock = static_cast<unsigned char*>(pAllocation) + nBLOCK_OFFSET;
    m_nSize = nSize;
}

MemoryBlock::MemoryBlock(const MemoryBlock& other) noexcept
    : m_pAllocation(other.m_pAllocation), m_pBlock(other.m_pBlock), m_pRefCount(other.m_pRefCount),
      m_nSize(other.m_nSize)
{
    // The source holds a reference for as long as this runs, so a relaxed increment suffices.
    if (m_pRefCount != nullptr) CountOf(m_pRefCount).fetch_add(1, std::memory_order_relaxed);
}

MemoryBlock& MemoryBlock::operator=(const MemoryBlock& other) noexcept
{
    if (this == &other) return *this;
    Release();
    m_pAllocation = other.m_pAllocation;
    m_pBlock = other.m_pBlock;
    m_pRefCount = other.m_pRefCount;
    m_nSize = other.m_nSize;
    if (m_pRefCount != nullptr) CountOf(m_pRefCount).fetch_add(1, std::memory_order_relaxed);
    return *this;
}

MemoryBlock::~MemoryBlock()
{
    Release();
}

void MemoryBlock::Release() noexcept
{
    // Release order publishes this holder's writes to the memory; the last holder acquires them
    // all before the allocation goes back to the heap.
    if (m_pRefCount != nullptr && CountOf(m_pRefCount).fetch_sub(1, std::memory_order_acq_rel) == 1) {
        std::free(m_pAllocation);
    }
    m_pAllocation = nullptr;
    m_pBlock = nullptr;
    m_pRefCount = nullptr;
    m_nSize = 0;
}

} // namespace Qel::Core
