// The untyped object pool: blocks, slots and the first-in first-out free list.
#include "Infrastructure/QelCore/ObjectPool.h"

#include <cstdint>
#include <limits>

namespace Qel::Core {

namespace {

const char* const sLOG_NAME = "Qel.Core.ObjectPool";
constexpr unsigned long long nMIN_OBJECTS_PER_BLOCK = 50;
constexpr unsigned long long nMAX = std::numeric_limits<unsigned long long>::max();

bool IsPowerOfTwo(unsigned long long value)
{
    return value != 0 && (value & (value - 1)) == 0;
}

} // namespace

ObjectPoolBase::ObjectPoolBase(unsigned long long nObjectSize, unsigned long long nObjectsPerBlock,
                               unsigned long long nAlignment)
    : m_nObjectSize(nObjectSize),
      m_nObjectsPerBlock(nObjectsPerBlock > nMIN_OBJECTS_PER_BLOCK ? nObjectsPerBlock : nMIN_OBJECTS_PER_BLOCK),
      m_nAlignment(alignof(std::max_align_t))
{
    if (nObjectSize == 0) QEL_RAISE_ERROR(InvalidParameter("p_ObjectSize", nObjectSize), sLOG_NAME);
    if (IsPowerOfTwo(nAlignment)) m_nAlignment = nAlignment;
    else QEL_RAISE_ERROR(InvalidParameter("p_Alignment", nAlignment), sLOG_NAME);

    // Round up to the alignment; a size that cannot be rounded stays at the maximum, which makes
    // the first block's allocation fail.
    if (m_nObjectSize > nMAX - (m_nAlignment - 1)) m_nObjectSize = nMAX;
    else m_nObjectSize = (m_nObjectSize + m_nAlignment - 1) & ~(m_nAlignment - 1);
}

ObjectPoolBase::~ObjectPoolBase() = default;

std::size_t ObjectPoolBase::GetBlockCount() const
{
    Lock guard(m_Lock);
    return m_Blocks.size();
}

void ObjectPoolBase::AddMemoryBlock()
{
    // The block's memory is aligned to MemoryBlock::nBLOCK_OFFSET; a larger alignment needs up to
    // (alignment - that) bytes more in front of the first slot. Sizes that do not fit 64 bits ask
    // for the impossible maximum and fail in MemoryBlock.
    const unsigned long long nExtra =
        m_nAlignment > MemoryBlock::nBLOCK_OFFSET ? m_nAlignment - MemoryBlock::nBLOCK_OFFSET : 0;
    unsigned long long nSize = nMAX;
    if (m_nObjectSize <= (nMAX - nExtra) / m_nObjectsPerBlock) nSize = m_nObjectSize * m_nObjectsPerBlock + nExtra;

    MemoryBlock block(nSize);
    if (block.IsNULL()) return;

    const auto nStart = reinterpret_cast<std::uintptr_t>(block.GetBlock());
    const std::uintptr_t nFirst = (nStart + (m_nAlignment - 1)) & ~static_cast<std::uintptr_t>(m_nAlignment - 1);
    auto* pFirst = static_cast<unsigned char*>(block.GetBlock()) + (nFirst - nStart);

    // Built aside, so that a failure leaves the pool as it was.
    std::list<void*> slots;
    for (unsigned long long i = 0; i < m_nObjectsPerBlock; ++i) slots.push_back(pFirst + i * m_nObjectSize);
    m_Blocks.push_back(block);
    m_FreeList.splice(m_FreeList.end(), slots);
}

void* ObjectPoolBase::AllocateObjectMemory()
{
    Lock guard(m_Lock);
    if (m_FreeList.empty()) AddMemoryBlock();
    if (m_FreeList.empty()) return nullptr;
    void* pObject = m_FreeList.front();
    // The node is kept for the address's way back.
    m_SpareNodes.splice(m_SpareNodes.end(), m_FreeList, m_FreeList.begin());
    return pObject;
}

void ObjectPoolBase::Deallocate(void* pObject)
{
    if (pObject == nullptr) return;
    DestroyObject(pObject);
    DeallocateMemory(pObject);
}

void ObjectPoolBase::DeallocateMemory(void* pObject)
{
    if (pObject == nullptr) return;
    Lock guard(m_Lock);
    if (m_SpareNodes.empty()) {
        // Only for an address that the pool did not hand out.
        m_FreeList.push_back(pObject);
        return;
    }
    m_SpareNodes.front() = pObject;
    m_FreeList.splice(m_FreeList.end(), m_SpareNodes, m_SpareNodes.begin());
}

} // namespace Qel::Core
