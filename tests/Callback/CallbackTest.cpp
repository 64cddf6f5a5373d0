// Tests of the callback objects: calls through the abstract classes, arguments passed through,
// results given back, and comparison.
#include "Infrastructure/QelCore/Callback.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Qel::Core;

namespace {

// The text that the targets append to, one call after the other.
std::string g_sTrace;

void GlobalAppend()
{
    g_sTrace += "CGlobal";
}
void OtherGlobal()
{
    g_sTrace += "Other";
}
std::string GlobalRet()
{
    return "CGlobalRet";
}
void GlobalArg(std::string& sText)
{
    sText += "CGlobalArg";
}
std::string GlobalRetArg(const std::string& sText)
{
    return sText + "CGlobalRetArg";
}

class CClass
{
public:
    void Append() { g_sTrace += "CClass"; }
    std::string Ret() { return "CClassRet"; }
    void Arg(std::string& sText) { sText += "CClassArg"; }
    std::string RetArg(const std::string& sText) { return sText + "CClassRetArg"; }
    void Other() { g_sTrace += "Other"; }
};

class CallbackTest : public ::testing::Test
{
protected:
    void SetUp() override { g_sTrace.clear(); }
};

TEST_F(CallbackTest, EachShapeCallsMethodAndFunction)
{
    CClass object;

    {
        const std::vector<std::shared_ptr<Callback>> vCallbacks{
            std::make_shared<MethodCallback<CClass>>(&object, &CClass::Append),
            std::make_shared<GlobalCallback>(&GlobalAppend)};
        for (const auto& spCallback : vCallbacks) (*spCallback)();
        EXPECT_EQ(g_sTrace, "CClassCGlobal");
    }
    {
        MethodCallbackRet<CClass, std::string> method(&object, &CClass::Ret);
        GlobalCallbackRet<std::string> global(&GlobalRet);
        CallbackRet<std::string>* apCallbacks[] = {&method, &global};
        std::string sText;
        for (CallbackRet<std::string>* pCallback : apCallbacks) sText += (*pCallback)();
        EXPECT_EQ(sText, "CClassRetCGlobalRet");
    }
    {
        MethodCallbackArg<CClass, std::string&> method(&object, &CClass::Arg);
        GlobalCallbackArg<std::string&> global(&GlobalArg);
        CallbackArg<std::string&>* apCallbacks[] = {&method, &global};
        std::string sText;
        for (CallbackArg<std::string&>* pCallback : apCallbacks) (*pCallback)(sText);
        EXPECT_EQ(sText, "CClassArgCGlobalArg");
    }
    {
        MethodCallbackRetArg<CClass, std::string, const std::string&> method(&object, &CClass::RetArg);
        GlobalCallbackRetArg<std::string, const std::string&> global(&GlobalRetArg);
        CallbackRetArg<std::string, const std::string&>* apCallbacks[] = {&method, &global};
        std::string sText;
        for (auto* pCallback : apCallbacks) sText = (*pCallback)(sText);
        EXPECT_EQ(sText, "CClassRetArgCGlobalRetArg");
    }
}

// Records what it receives through a constant reference to a shared pointer.
class Receiver
{
public:
    void Receive(const std::shared_ptr<double>& spValue)
    {
        m_pLastReference = &spValue;
        m_dLastValue = *spValue;
        m_nUseCount = spValue.use_count();
    }

    const std::shared_ptr<double>* m_pLastReference = nullptr;
    double m_dLastValue = 0.0;
    long m_nUseCount = 0;
};

TEST_F(CallbackTest, ConstReferenceArgumentReachesTheTargetUnchanged)
{
    using TArg = const std::shared_ptr<double>&;
    Receiver receiver;

    const auto spFirst = std::make_shared<double>(1.414);
    MethodCallbackArg<Receiver, TArg> first(&receiver, &Receiver::Receive);
    CallbackArg<TArg>& rFirst = first;
    rFirst(spFirst);
    EXPECT_DOUBLE_EQ(receiver.m_dLastValue, 1.414);
    // The very object the caller passes, not a copy: the count of owners stays at one.
    EXPECT_EQ(receiver.m_pLastReference, &spFirst);
    EXPECT_EQ(receiver.m_nUseCount, 1);

    const auto spSecond = std::make_shared<double>(97.2);
    auto spCallback = std::make_shared<MethodCallbackArg<Receiver, TArg>>(&receiver, &Receiver::Receive);
    (*spCallback)(spSecond);
    EXPECT_DOUBLE_EQ(receiver.m_dLastValue, 97.2);
    EXPECT_EQ(receiver.m_pLastReference, &spSecond);
    EXPECT_EQ(receiver.m_nUseCount, 1);
}

int Twice(int n)
{
    return 2 * n;
}
int Negate(int n)
{
    return -n;
}
void Take(std::unique_ptr<int> spValue)
{
    g_sTrace = std::to_string(*spValue);
}
void Increment(int* pValue)
{
    ++*pValue;
}

TEST_F(CallbackTest, ValuePointerAndMoveOnlyArguments)
{
    GlobalCallbackRetArg<int, int> twice(&Twice);
    EXPECT_EQ(twice(21), 42);

    int nValue = 1;
    GlobalCallbackArg<int*> increment(&Increment);
    increment(&nValue);
    increment(&nValue);
    EXPECT_EQ(nValue, 3);

    // A value argument is passed on by moving, so a move-only type goes through.
    GlobalCallbackArg<std::unique_ptr<int>> take(&Take);
    take(std::make_unique<int>(7));
    EXPECT_EQ(g_sTrace, "7");
}

TEST_F(CallbackTest, MethodCallbacksCompareByObjectAndMethod)
{
    CClass object;
    CClass another;
    MethodCallback<CClass> a(&object, &CClass::Append);
    MethodCallback<CClass> b(&object, &CClass::Append);
    MethodCallback<CClass> onAnother(&another, &CClass::Append);
    MethodCallback<CClass> otherMethod(&object, &CClass::Other);

    const Callback& ra = a;
    EXPECT_TRUE(ra == b);
    EXPECT_TRUE(b == ra);
    EXPECT_FALSE(ra == onAnother);
    EXPECT_FALSE(ra == otherMethod);
    EXPECT_TRUE(ra != onAnother);
}

TEST_F(CallbackTest, GlobalCallbacksCompareByFunction)
{
    GlobalCallback a(&GlobalAppend);
    GlobalCallback b(&GlobalAppend);
    GlobalCallback other(&OtherGlobal);
    const Callback& ra = a;
    EXPECT_TRUE(ra == b);
    EXPECT_FALSE(ra == other);

    GlobalCallbackRetArg<int, int> twice(&Twice);
    GlobalCallbackRetArg<int, int> twiceAgain(&Twice);
    GlobalCallbackRetArg<int, int> negate(&Negate);
    const CallbackRetArg<int, int>& rTwice = twice;
    EXPECT_TRUE(rTwice == twiceAgain);
    EXPECT_FALSE(rTwice == negate);
}

TEST_F(CallbackTest, GlobalNeverEqualsMethod)
{
    CClass object;
    MethodCallback<CClass> method(&object, &CClass::Append);
    GlobalCallback global(&GlobalAppend);
    const Callback& rMethod = method;
    const Callback& rGlobal = global;
    EXPECT_FALSE(rMethod == rGlobal);
    EXPECT_FALSE(rGlobal == rMethod);

    MethodCallbackRet<CClass, std::string> methodRet(&object, &CClass::Ret);
    GlobalCallbackRet<std::string> globalRet(&GlobalRet);
    const CallbackRet<std::string>& rMethodRet = methodRet;
    const CallbackRet<std::string>& rGlobalRet = globalRet;
    EXPECT_FALSE(rMethodRet == rGlobalRet);
    EXPECT_FALSE(rGlobalRet == rMethodRet);
}

// A callback of its own kind that keeps the identity comparison of the abstract class.
class CountingCallback : public Callback
{
public:
    void operator()() override { ++m_nCalls; }
    int m_nCalls = 0;
};

TEST_F(CallbackTest, AbstractClassComparesByIdentity)
{
    CountingCallback first;
    CountingCallback second;
    const Callback& rFirst = first;
    EXPECT_TRUE(rFirst == first);
    EXPECT_FALSE(rFirst == second);

    // A concrete callback is not equal to one of another class, in either direction.
    GlobalCallback global(&GlobalAppend);
    EXPECT_FALSE(rFirst == global);
    EXPECT_FALSE(global == rFirst);

    std::shared_ptr<Callback> spCallback = std::make_shared<CountingCallback>();
    (*spCallback)();
    EXPECT_EQ(static_cast<CountingCallback&>(*spCallback).m_nCalls, 1);
}

TEST_F(CallbackTest, CopiesAreEqualAndCallTheSameTarget)
{
    CClass object;
    CClass another;
    MethodCallback<CClass> original(&object, &CClass::Append);
    MethodCallback<CClass> copy(original);
    EXPECT_TRUE(copy == original);

    MethodCallback<CClass> assigned(&another, &CClass::Other);
    EXPECT_FALSE(assigned == original);
    assigned = original;
    EXPECT_TRUE(assigned == original);
    assigned();
    EXPECT_EQ(g_sTrace, "CClass");

    GlobalCallbackRet<std::string> globalRet(&GlobalRet);
    GlobalCallbackRet<std::string> globalCopy = globalRet;
    EXPECT_TRUE(globalCopy == globalRet);
    EXPECT_EQ(globalCopy(), "CGlobalRet");
}

class Thrower
{
public:
    int Fail(int) { throw std::runtime_error("from the target"); }
};

void ThrowLogic()
{
    throw std::logic_error("from the function");
}

TEST_F(CallbackTest, ExceptionsOfTheTargetReachTheCaller)
{
    Thrower thrower;
    MethodCallbackRetArg<Thrower, int, int> method(&thrower, &Thrower::Fail);
    EXPECT_THROW(method(1), std::runtime_error);
    GlobalCallback global(&ThrowLogic);
    Callback& rGlobal = global;
    EXPECT_THROW(rGlobal(), std::logic_error);
}

TEST_F(CallbackTest, MethodCallbackActsOnItsObject)
{
    struct Counter
    {
        int Add(int n) { return m_nTotal += n; }
        int m_nTotal = 0;
    };
    Counter first;
    Counter second;
    MethodCallbackRetArg<Counter, int, int> addFirst(&first, &Counter::Add);
    MethodCallbackRetArg<Counter, int, int> addSecond(&second, &Counter::Add);
    EXPECT_EQ(addFirst(5), 5);
    EXPECT_EQ(addFirst(3), 8);
    EXPECT_EQ(addSecond(1), 1);
    EXPECT_EQ(first.m_nTotal, 8);
    EXPECT_EQ(second.m_nTotal, 1);
    EXPECT_FALSE(addFirst == addSecond);
}

} // namespace
