// The shared body of alerts.
#include "Infrastructure/QelCore/AlertInfo.h"

#include "Infrastructure/QelCore/AlertManager.h"
#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/Locale.h"
#include "Infrastructure/QelCore/Time.h"
#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"
#include "Infrastructure/QelCore/XMLWriter.h"

#include <iostream>

namespace Qel::Core {
namespace {

} // namespace

const std::string& Detail::EmptyText()
{
    static Utilities::Immortal<std::string> s_Empty; // never destroyed: read during unload
    return s_Empty.Get();
}

namespace {

void WriteStack(XMLWriter& writer, std::ostream& out, const char* name, const AlertInfo::ContextStack& stack)
{
    if (stack.empty()) return;
    out << writer.StartTag(name);
    for (const CodeContext& context : stack) {
        out << writer.StartTag("Context");
        for (const auto& [key, value] : context.GetContextInfo()) out << writer.Tag(key, XMLWriter::NO_ATTRIBUTES, value);
        if (context.HasVariableInfo()) {
            out << writer.StartTag("Variables");
            for (const auto& [variable, value] : context.GetVariables()) {
                XMLAttributeMap<std::string> attributes;
                attributes["name"] = variable;
                out << writer.Tag("Var", attributes, value);
            }
            out << writer.EndTag();
        }
        out << writer.EndTag();
    }
    out << writer.EndTag();
}

} // namespace

std::string TypeName(const std::type_info& type)
{
    return Platform::RawTypeName(type);
}

std::string ReadableTypeName(const std::type_info& type)
{
    return Platform::ReadableTypeName(type);
}

std::string Detail::FunctionNameOf(const char* signature)
{
    return Platform::FunctionNameFromSignature(signature == nullptr ? "" : signature);
}

// Each step runs on its own: an allocation failure leaves the alert as far as it got.
AlertInfo::AlertInfo() : m_eSeverity(static_cast<ESeverity>(-1))
{
    try {
        m_spData = std::make_shared<StringMap>();
        m_spData->reserve(16); // room for the keys of a raised error without rehashing
    } catch (...) {
    }
    try { m_spUnwindStack = std::make_shared<ContextStack>(); } catch (...) {}
    try { SetData(sTIME_STAMP, Time().ToString()); } catch (...) {}
    try { SetData(sMESSAGE, "No Message"); } catch (...) {}
    try { SetData(sCATEGORY, "Unknown"); } catch (...) {}
    try { SetData(sLOG_NAME, std::string()); } catch (...) {}
    try { SetSeverity(static_cast<ESeverity>(-1)); } catch (...) {}
}

AlertInfo::AlertInfo(const AlertInfo& other) = default;
AlertInfo& AlertInfo::operator=(const AlertInfo& other) = default;

AlertInfo::AlertInfo(const StringMap& data, const ContextStack& callStack, const ContextStack& unwindStack)
    : m_spData(std::make_shared<StringMap>(data)),
      m_spCallStack(std::make_shared<ContextStack>(callStack)),
      m_eSeverity(static_cast<ESeverity>(-1)),
      m_spUnwindStack(std::make_shared<ContextStack>(unwindStack))
{
}

AlertInfo::~AlertInfo() = default;

std::string AlertInfo::XMLElementName() const
{
    return "Alert";
}

const std::string& AlertInfo::GetData(const std::string& key) const
{
    if (!m_spData) return Detail::EmptyText();
    auto found = m_spData->find(key);
    return found == m_spData->end() ? Detail::EmptyText() : found->second;
}

bool AlertInfo::SetData(const std::string& key, const std::string& value)
{
    if (!m_spData) return false;
    try {
        (*m_spData)[key] = value;
    } catch (...) {
        return false; // the heap refused the key or the value
    }
    return true;
}

bool AlertInfo::DataExists(const std::string& key) const
{
    return m_spData && m_spData->count(key) != 0;
}

bool AlertInfo::GetAllData(StringMap& out) const
{
    if (m_spData) {
        try {
            out = *m_spData;
            return true;
        } catch (...) {
        }
    }
    out.clear();
    try {
        out[sMESSAGE] = "No error data due to memory allocation failure";
    } catch (...) {
    }
    return false;
}

const std::string& AlertInfo::GetMessageA() const
{
    return GetData(sMESSAGE);
}

const std::string& AlertInfo::GetDisplayMessage() const
{
    const std::string& display = GetData(sDISPLAY_MESSAGE);
    return display.empty() ? GetData(sMESSAGE) : display;
}

void AlertInfo::PushContext(const CodeContext& context)
{
    try {
        if (m_spUnwindStack) m_spUnwindStack->push_back(context);
    } catch (...) {
        // No memory for the position: the trail misses it (push_back leaves the stack as it was).
    }
}

std::string AlertInfo::SeverityText(ESeverity severity)
{
    switch (severity) {
    case eWARNING: return "Warning";
    case eERROR: return "Error";
    case eCRITICAL: return "Critical";
    default: return "Unknown";
    }
}

void AlertInfo::SetSeverity(ESeverity severity) noexcept
{
    m_eSeverity = severity;
    try {
        SetData(sSEVERITY, SeverityText(severity));
    } catch (...) {
    }
}

void AlertInfo::ToXML(XMLWriter& writer, std::ostream& out, const std::string& circumstance)
{
    out << writer.StartTag(XMLElementName());
    if (!circumstance.empty()) out << writer.Tag("Circumstance", XMLWriter::NO_ATTRIBUTES, circumstance);
    StringMap data;
    GetAllData(data);
    for (const auto& [key, value] : data) out << writer.Tag(key, XMLWriter::NO_ATTRIBUTES, value);
    if (m_spCallStack) WriteStack(writer, out, "CallStack", *m_spCallStack);
    if (m_spUnwindStack) WriteStack(writer, out, "UnwindStack", *m_spUnwindStack);
    out << writer.EndTag();
}

void AlertInfo::GetDisplayFormat(const std::string& typeName, const std::string& defaultFormat, std::string& format)
{
    // First use of the class in the process: its entry in the manager's cache (the lasting effect
    // is the cache and the default wording collected for translators).
    if (AlertManager* manager = AlertManager::Instance()) (void)manager->CachedDisplayFormat(typeName, defaultFormat);
    // The locale's own wording of the class, if it has one; otherwise the default wording is
    // collected in the root locale's tables so that it can be written out for translators.
    std::string localized;
    if (Detail::LookupLocaleString(typeName, sDISPLAY_FORMAT, localized)) {
        format = localized;
        return;
    }
    Detail::AddRootLocaleString(typeName, sDISPLAY_FORMAT, defaultFormat);
    format = defaultFormat;
}

void AlertInfo::ComposeMessages(const std::type_info& type, const std::string& defaultFormat,
                                const MessageFormatter& formatter, bool appendInheritance) noexcept
{
    ComposeMessages(type, defaultFormat.c_str(), formatter, appendInheritance);
}

void AlertInfo::ComposeMessages(const std::type_info& type, const char* defaultFormatText,
                                const MessageFormatter& formatter, bool appendInheritance) noexcept
{
    try {
        // Everything that may allocate happens in here, the format's own string included.
        const std::string defaultFormat(defaultFormatText == nullptr ? "" : defaultFormatText);
        std::string message = formatter(defaultFormat);
        SetData(sMESSAGE, message);
        std::string typeName = TypeName(type);
        SetData(sTYPE_NAME, typeName);
        std::string format;
        GetDisplayFormat(typeName, defaultFormat, format);
        SetData(sDISPLAY_MESSAGE, format != defaultFormat ? formatter(format) : message);
        if (appendInheritance) {
            std::string chain = GetData(Error::sINHERITANCE);
            SetData(Error::sINHERITANCE, chain + "=>" + typeName);
        }
    } catch (...) {
        try {
            Platform::WriteStandardError("Failed to construct alert due to exception!\n");
        } catch (...) {
        }
        try {
            SetData(sMESSAGE, "Failed to construct alert message due to exception.");
        } catch (...) {
        }
    }
}

} // namespace Qel::Core
