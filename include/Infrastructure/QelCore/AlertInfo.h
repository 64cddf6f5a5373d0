// The alert data model: the shared body of every error and warning, and code positions.
#pragma once

#include "Infrastructure/QelCore/QelCoreExport.h"

#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <vector>

namespace Qel::Core {

class XMLWriter;

namespace Detail {
// An empty string that outlives every other object of the library.
QEL_CORE_API const std::string& EmptyText();
} // namespace Detail

// The hash map from string to string that alerts and code positions are made of.
using StringMap = std::unordered_map<std::string, std::string>;

// One position in the code: where an alert was raised or forwarded, or one frame of a call stack.
class QEL_CORE_API CodeContext
{
public:
    static const std::string& sFILE;              // "File"
    static const std::string& sLINE;              // "Line"
    static const std::string& sBUILD_TIME;        // "CompileTime"
    static const std::string& sFUNCTION;          // "FunctionName"
    static const std::string& sSIGNATURE;         // "FunctionSignature"
    static const std::string& sPROCESS;           // "ProcessName"
    static const std::string& sPROCESS_ID;        // "ProcessID"
    static const std::string& sTHREAD;            // "ThreadName"
    static const std::string& sTHREAD_ID;         // "ThreadID"
    static const std::string& sOPERATING_SYSTEM;  // "OperatingSystem"
    static const std::string& sHOST;              // "HostName"

    // A position from the compiler's facts. A negative line is recorded as "Unknown"; empty
    // compile time, function and signature leave their keys out. Process and thread details are
    // added while the library runs and is not unloading.
    CodeContext(const std::string& file, int line, const std::string& buildTime,
                const std::string& function, const std::string& signature);
    CodeContext(const StringMap& contextInfo, const StringMap& variables);
    // The position that QEL_CODE_CONTEXT makes: the same keys as the constructor above, with the
    // function name taken from the signature. Never throws: under heap exhaustion the position
    // holds what could be stored.
    static CodeContext AtSource(const char* file, int line, const char* buildTime, const char* signature);
    CodeContext(const CodeContext&) = default;
    CodeContext& operator=(const CodeContext&) = default;
    virtual ~CodeContext();

    // The value of a key, or an empty string.
    const std::string& Get(const std::string& key) const;
    const StringMap& GetContextInfo() const { return m_ContextInfo; }
    const StringMap& GetVariables() const { return m_Variables; }
    bool HasVariableInfo() const { return !m_Variables.empty(); }

    // Stores the text of any streamable value under a key of the position.
    template <typename T>
    void SetInfo(const std::string& key, const T& value)
    {
        m_ContextInfo[key] = ToText(value);
    }

    // Stores the text of any streamable value as a variable of the position.
    template <typename T>
    void SetVariable(const std::string& name, const T& value)
    {
        m_Variables[name] = ToText(value);
    }

private:
    template <typename T>
    static std::string ToText(const T& value)
    {
        std::ostringstream text;
        text << value;
        return text.str();
    }

    StringMap m_ContextInfo;
    StringMap m_Variables;
};

// The common body of every alert: a bag of string keys and values, a severity, a call stack and
// an unwind stack. Copies share the bag and both stacks. No operation lets an allocation failure
// out: a body that could not be allocated reads as empty.
class QEL_CORE_API AlertInfo
{
public:
    // Single bits, so that listeners can filter by mask.
    enum ESeverity : int { eWARNING = 1, eERROR = 2, eCRITICAL = 4 };

    static const std::string& sMESSAGE;         // "Message"
    static const std::string& sDISPLAY_MESSAGE; // "DisplayMessage"
    static const std::string& sDISPLAY_FORMAT;  // "DisplayFormat" (a string-table key, not a bag key)
    static const std::string& sSEVERITY;        // "Severity"
    static const std::string& sCATEGORY;        // "Category"
    static const std::string& sLOG_NAME;        // "LogName"
    static const std::string& sTIME_STAMP;      // "TimeStamp"
    static const std::string& sTYPE_NAME;       // "TypeName"
    static const std::string& sALERT_MESSAGE_FORMATS; // "_AlertMessageFormats_"

    using ContextStack = std::vector<CodeContext>;

    // Message "No Message", Category "Unknown", empty LogName, severity -1 ("Unknown"), the time
    // of construction, an empty unwind stack and no call stack.
    AlertInfo();
    AlertInfo(const AlertInfo& other);
    AlertInfo& operator=(const AlertInfo& other);
    // Rebuilds an alert from its parts into new, unshared containers; the severity is -1.
    AlertInfo(const StringMap& data, const ContextStack& callStack, const ContextStack& unwindStack);
    virtual ~AlertInfo();

    // "Alert"; "Warning" and "Error" in those classes.
    virtual std::string XMLElementName() const;

    // The value of a key; an empty string if the key or the body is missing.
    const std::string& GetData(const std::string& key) const;
    // Sets or overwrites a key; false if the body is missing or the heap refuses the value.
    bool SetData(const std::string& key, const std::string& value);
    bool DataExists(const std::string& key) const;
    // Copies the bag into `out`. Without a body `out` holds only a Message saying so, and the
    // result is false.
    bool GetAllData(StringMap& out) const;

    const std::string& GetMessageA() const;
    const std::string& GetMessage() const { return GetMessageA(); }
    // DisplayMessage if it is not empty, else Message.
    const std::string& GetDisplayMessage() const;
    ESeverity GetSeverity() const { return m_eSeverity; }

    // Appends a copy of the position to the unwind stack (shared with every copy of the alert);
    // under heap exhaustion the stack stays as it was.
    void PushContext(const CodeContext& context);
    std::shared_ptr<ContextStack> GetCallStack() const { return m_spCallStack; }
    std::shared_ptr<ContextStack> GetUnwindStack() const { return m_spUnwindStack; }

    // Writes the alert as one XML element, with a Circumstance element first if one is given.
    void ToXML(XMLWriter& writer, std::ostream& out, const std::string& circumstance);

    // Text of a severity: "Warning", "Error", "Critical", or "Unknown" for any other value.
    static std::string SeverityText(ESeverity severity);

protected:
    // Stores the severity and its text under Severity (only the field if there is no body or
    // the heap refuses the text). Never throws.
    void SetSeverity(ESeverity severity) noexcept;

    // The wording that the current locale gives an alert class; `defaultFormat` if it has none.
    static void GetDisplayFormat(const std::string& typeName, const std::string& defaultFormat,
                                 std::string& format);

    // Formats one way of wording the message with the constructor's arguments. It refers to a
    // callable (the macros' lambda) that outlives it, and allocates nothing itself, so that
    // building it cannot fail.
    class MessageFormatter
    {
    public:
        template <typename F>
            requires(!std::is_same_v<std::remove_cvref_t<F>, MessageFormatter>)
        MessageFormatter(const F& callable) noexcept
            : m_pCallable(&callable),
              m_pInvoke([](const void* target, const std::string& format) -> std::string {
                  return (*static_cast<const F*>(target))(format);
              })
        {
        }
        std::string operator()(const std::string& format) const { return m_pInvoke(m_pCallable, format); }

    private:
        const void* m_pCallable;
        std::string (*m_pInvoke)(const void*, const std::string&);
    };

    // The work of a constructor made by the alert-defining macros, after its severity is set:
    // Message from the default format, TypeName, DisplayMessage from the locale's wording and,
    // for an error, the class appended to Inheritance. Never throws: a bad format or wrong
    // arguments leave a fixed message and a note on the standard error stream, and under heap
    // exhaustion the alert keeps what could be stored.
    void ComposeMessages(const std::type_info& type, const char* defaultFormat, const MessageFormatter& formatter,
                         bool appendInheritance) noexcept;
    void ComposeMessages(const std::type_info& type, const std::string& defaultFormat,
                         const MessageFormatter& formatter, bool appendInheritance) noexcept;

    std::shared_ptr<StringMap> m_spData;
    std::shared_ptr<ContextStack> m_spCallStack;
    ESeverity m_eSeverity;
    std::shared_ptr<ContextStack> m_spUnwindStack;
};

} // namespace Qel::Core
