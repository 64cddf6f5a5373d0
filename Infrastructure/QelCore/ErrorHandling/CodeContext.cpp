// Code positions.
#include "Infrastructure/QelCore/AlertInfo.h"

#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/System/SystemDetails.h"

namespace Qel::Core {

CodeContext::CodeContext(const std::string& file, int line, const std::string& buildTime,
                         const std::string& function, const std::string& signature)
{
    m_ContextInfo[sFILE] = file;
    m_ContextInfo[sLINE] = line < 0 ? std::string("Unknown") : std::to_string(line);
    if (!buildTime.empty()) m_ContextInfo[sBUILD_TIME] = buildTime;
    if (!function.empty()) m_ContextInfo[sFUNCTION] = function;
    if (!signature.empty()) m_ContextInfo[sSIGNATURE] = signature;
    if (IsUnloading()) return;
    AddSystemDetails(*this);
}

CodeContext::CodeContext(const StringMap& contextInfo, const StringMap& variables)
    : m_ContextInfo(contextInfo), m_Variables(variables)
{
}

CodeContext::~CodeContext() = default;

const std::string& CodeContext::Get(const std::string& key) const
{
    auto found = m_ContextInfo.find(key);
    return found == m_ContextInfo.end() ? Detail::EmptyText() : found->second;
}

} // namespace Qel::Core
