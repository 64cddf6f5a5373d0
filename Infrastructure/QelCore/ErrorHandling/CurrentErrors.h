// The last error raised on each thread, kept by the alert manager for the moment the process dies.
#pragma once

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Mutex.h"
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <cstdint>
#include <memory>
#include <unordered_map>

namespace Qel::Core {

// The last error raised on each thread, as plain copies that share the alert's body and hold no
// raised status. Entries of ended threads stay for the life of the process.
class CurrentErrors
{
public:
    void Store(const Error& error)
    {
        Lock guard(m_Mutex);
        auto copy = std::make_shared<Error>(AlertInfo::eERROR);
        copy->Copy(error, false);
        m_Errors[Platform::ThreadIdFast()] = std::move(copy);
    }
    std::shared_ptr<Error> Get() const
    {
        Lock guard(m_Mutex);
        auto found = m_Errors.find(Platform::ThreadIdFast());
        return found == m_Errors.end() ? nullptr : found->second;
    }
    // The entry of the calling thread, else the first entry of the table, else null.
    std::shared_ptr<Error> GetOrFirst() const
    {
        Lock guard(m_Mutex);
        auto found = m_Errors.find(Platform::ThreadIdFast());
        if (found != m_Errors.end()) return found->second;
        return m_Errors.empty() ? nullptr : m_Errors.begin()->second;
    }

private:
    std::unordered_map<std::uint32_t, std::shared_ptr<Error>> m_Errors;
    mutable Mutex m_Mutex;
};

} // namespace Qel::Core
