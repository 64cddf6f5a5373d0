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

CodeContext CodeContext::AtSource(const char* file, int line, const char* buildTime, const char* signature)
{
    // Each key on its own: a refusal of the heap leaves out what it hit and nothing else.
    CodeContext context(StringMap{}, StringMap{});
    StringMap& info = context.m_ContextInfo;
    try { info[sFILE] = file == nullptr ? "" : file; } catch (...) {}
    try { info[sLINE] = line < 0 ? std::string("Unknown") : std::to_string(line); } catch (...) {}
    try { if (buildTime != nullptr && *buildTime != '\0') info[sBUILD_TIME] = buildTime; } catch (...) {}
    try {
        std::string function = Detail::FunctionNameOf(signature);
        if (!function.empty()) info[sFUNCTION] = std::move(function);
    } catch (...) {
    }
    try { if (signature != nullptr && *signature != '\0') info[sSIGNATURE] = signature; } catch (...) {}
    try {
        if (!IsUnloading()) AddSystemDetails(context);
    } catch (...) {
    }
    return context;
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
