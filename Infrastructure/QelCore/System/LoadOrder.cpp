// The process-wide objects of the library whose construction order is fixed.
//
// They are built before every other static object of the library (and of its hosts), in the
// order in which they stand here, by the compiler's initialisation priorities:
//   1. the key strings of alerts, code positions and error categories;
//   2. the registry of singletons;
//   3. the leak-detection constants and the root locale's name;
//   4. Globals, which builds the managed process-wide services.
// The key strings are never destroyed: alerts raised from exit handlers that run after the
// library's static objects are gone still find them.
#include "Infrastructure/QelCore/System/Frame.h"

#include "Infrastructure/QelCore/Error.h"
#include "Infrastructure/QelCore/LocaleName.h"

#include "Infrastructure/QelCore/Platform/Platform.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"

#define QEL_LOAD_ORDER(n) __attribute__((init_priority(n)))

namespace Qel::Core {
namespace {

struct KeyStrings
{
    // AlertInfo
    const std::string message{"Message"};
    const std::string displayMessage{"DisplayMessage"};
    const std::string displayFormat{"DisplayFormat"};
    const std::string severity{"Severity"};
    const std::string category{"Category"};
    const std::string logName{"LogName"};
    const std::string timeStamp{"TimeStamp"};
    const std::string typeName{"TypeName"};
    const std::string alertMessageFormats{"_AlertMessageFormats_"};
    // CodeContext
    const std::string file{"File"};
    const std::string line{"Line"};
    const std::string compileTime{"CompileTime"};
    const std::string functionName{"FunctionName"};
    const std::string functionSignature{"FunctionSignature"};
    const std::string processName{"ProcessName"};
    const std::string processId{"ProcessID"};
    const std::string threadName{"ThreadName"};
    const std::string threadId{"ThreadID"};
    const std::string operatingSystem{"OperatingSystem"};
    const std::string hostName{"HostName"};
    // Errors
    const std::string inheritance{"Inheritance"};
    const std::string categoryLogic{"Logic"};
    const std::string categoryHardware{"Hardware"};
    const std::string categoryIO{"I/O"};
    const std::string categoryOS{"OperatingSystem"};
    const std::string categoryUnknown{"Unknown"};
    const std::string paramName{"ParamName"};
    const std::string paramValue{"ParamValue"};
};

// The strings outlive the library's static objects; the few too long for a string's own storage
// keep a heap block for good.
struct ImmortalKeyStrings : Utilities::Immortal<KeyStrings>
{
    ImmortalKeyStrings()
    {
        static_assert(sizeof(KeyStrings) % sizeof(std::string) == 0, "KeyStrings holds strings only");
        const std::string* first = reinterpret_cast<const std::string*>(&m_Object);
        for (std::size_t i = 0; i < sizeof(KeyStrings) / sizeof(std::string); ++i)
            if (first[i].capacity() > 15) Platform::KeepForever(first[i].data());
    }
};
ImmortalKeyStrings s_Keys QEL_LOAD_ORDER(101);

struct SingletonStorage
{
    FrameMutex mutex;
    std::list<ISingletonRegistryEntry*> registry;
};
SingletonStorage s_Singletons QEL_LOAD_ORDER(102);

} // namespace

const std::string& AlertInfo::sMESSAGE = s_Keys.m_Object.message;
const std::string& AlertInfo::sDISPLAY_MESSAGE = s_Keys.m_Object.displayMessage;
const std::string& AlertInfo::sDISPLAY_FORMAT = s_Keys.m_Object.displayFormat;
const std::string& AlertInfo::sSEVERITY = s_Keys.m_Object.severity;
const std::string& AlertInfo::sCATEGORY = s_Keys.m_Object.category;
const std::string& AlertInfo::sLOG_NAME = s_Keys.m_Object.logName;
const std::string& AlertInfo::sTIME_STAMP = s_Keys.m_Object.timeStamp;
const std::string& AlertInfo::sTYPE_NAME = s_Keys.m_Object.typeName;
const std::string& AlertInfo::sALERT_MESSAGE_FORMATS = s_Keys.m_Object.alertMessageFormats;

const std::string& CodeContext::sFILE = s_Keys.m_Object.file;
const std::string& CodeContext::sLINE = s_Keys.m_Object.line;
const std::string& CodeContext::sBUILD_TIME = s_Keys.m_Object.compileTime;
const std::string& CodeContext::sFUNCTION = s_Keys.m_Object.functionName;
const std::string& CodeContext::sSIGNATURE = s_Keys.m_Object.functionSignature;
const std::string& CodeContext::sPROCESS = s_Keys.m_Object.processName;
const std::string& CodeContext::sPROCESS_ID = s_Keys.m_Object.processId;
const std::string& CodeContext::sTHREAD = s_Keys.m_Object.threadName;
const std::string& CodeContext::sTHREAD_ID = s_Keys.m_Object.threadId;
const std::string& CodeContext::sOPERATING_SYSTEM = s_Keys.m_Object.operatingSystem;
const std::string& CodeContext::sHOST = s_Keys.m_Object.hostName;

const std::string& Error::sINHERITANCE = s_Keys.m_Object.inheritance;
const std::string& LogicError::sCATEGORY = s_Keys.m_Object.categoryLogic;
const std::string& HardwareError::sCATEGORY = s_Keys.m_Object.categoryHardware;
const std::string& IOError::sCATEGORY = s_Keys.m_Object.categoryIO;
const std::string& OSError::sCATEGORY = s_Keys.m_Object.categoryOS;
const std::string& UnknownError::sCATEGORY = s_Keys.m_Object.categoryUnknown;
const std::string& InvalidParameter::sNAME = s_Keys.m_Object.paramName;
const std::string& InvalidParameter::sVALUE = s_Keys.m_Object.paramValue;

std::list<ISingletonRegistryEntry*>& Frame::SingletonList()
{
    return s_Singletons.registry;
}

FrameMutex& Frame::SingletonMutex()
{
    return s_Singletons.mutex;
}

namespace Memory {
const MemoryLeakDetectOnOff DisableLeak QEL_LOAD_ORDER(103){1};
const MemoryLeakDetectOnOff EnableLeak QEL_LOAD_ORDER(103){0};
} // namespace Memory

// The root locale's name, made of its parts so that no locale data is asked for at this point.
const LocaleName LocaleName::USA QEL_LOAD_ORDER(104){"en", "US"};

namespace {
Globals s_Globals QEL_LOAD_ORDER(110);
} // namespace

Globals& Globals::Instance()
{
    return s_Globals;
}

} // namespace Qel::Core
