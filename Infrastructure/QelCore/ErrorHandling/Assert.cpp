// Failed assertions: one line to the debug output (and, for LogAssertFailed, an entry in the
// log), and execution goes on.
#include "Infrastructure/QelCore/Error.h"

#include "Infrastructure/QelCore/Logging/LogInternal.h"
#include "Infrastructure/QelCore/Globals.h"
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <cstdlib>

namespace Qel::Core {
namespace {

// Builds the failure and sends "<File>(<Line>): Failed Assertion(<expression>)" to the debug output.
AssertionFailure ReportAssertion(const std::string& expression, const CodeContext& context)
{
    AssertionFailure failure(expression);
    const std::string& lineText = context.Get(CodeContext::sLINE);
    long line = std::strtol(lineText.c_str(), nullptr, 10);
    Platform::DebugOutput(context.Get(CodeContext::sFILE) + "(" + std::to_string(line) +
                          "): Failed Assertion(" + failure.GetMessageA() + ")\n");
    return failure;
}

} // namespace

bool AssertFailed(const std::string& expression, const CodeContext& context)
{
    try {
        ReportAssertion(expression, context);
    } catch (...) {
    }
    return false;
}

bool LogAssertFailed(const std::string& expression, const CodeContext& context)
{
    try {
        AssertionFailure failure = ReportAssertion(expression, context);
        Detail::LogAlert(failure);
    } catch (...) {
    }
    return false;
}

} // namespace Qel::Core
