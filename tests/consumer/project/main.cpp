// A host of the installed library: raises and catches a typed error, splits a text and calls a
// callback. Prints "consumer ok" and ends with 0 when all of it works.
#include <Infrastructure/QelCore/QelCore.h>

#include <iostream>
#include <vector>

QEL_DEFINE_ERROR(ConsumerError, Qel::Core::LogicError, eERROR, "consumer error %1%", int)

namespace {
int g_iCalls = 0;
void Count() { ++g_iCalls; }
} // namespace

int main()
{
    InitializeQelCore();
    bool caught = false;
    try {
        QEL_RAISE_ERROR(ConsumerError(7), "Consumer");
    } catch (ConsumerError& error) {
        caught = error.GetMessageA() == "consumer error 7";
    }
    std::vector<std::string> parts;
    int count = Qel::Core::StringTools::Split("a,b,c", ",", parts);
    Qel::Core::GlobalCallback callback(&Count);
    callback();
    ShutdownQelCore();
    if (!caught || count != 3 || g_iCalls != 1) return 1;
    std::cout << "consumer ok" << std::endl;
    return 0;
}
