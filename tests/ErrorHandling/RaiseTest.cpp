// Raising: forwarding trails, listeners' events, in-place handling, the recursion stop, slicing,
// assertions and raising on several threads.
#include <Infrastructure/QelCore/QelCore.h>

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

using namespace Qel::Core;

namespace {

QEL_DEFINE_ERROR(TrailError, LogicError, eERROR, "trail %1%", int)
QEL_DEFINE_WARNING(NoteWarning, Warning, "note %1%", std::string)

std::atomic<int> g_iRaiseLine{0};

[[noreturn]] void RaiseTrail()
{
    g_iRaiseLine = __LINE__ + 1;
    QEL_RAISE_ERROR(TrailError(7), "Qel.Test.Trail");
    throw std::logic_error("not reached");
}

// Forwards through `depth` more functions before the raise.
void Forward(int depth)
{
    try {
        if (depth == 0) RaiseTrail();
        else Forward(depth - 1);
    }
    QEL_FORWARD_ERROR
}

// An error whose call-stack capture raises the same class again.
class RecursiveError : public LogicError
{
public:
    static std::atomic<int> s_iRaisings;
    RecursiveError() : LogicError("recursive") { ++s_iRaisings; } // each one built is raised
    RecursiveError(const RecursiveError&) = default;
    std::shared_ptr<Error> Clone() const override { return std::make_shared<RecursiveError>(*this); }

protected:
    std::shared_ptr<ContextStack> CreateCallStack() override
    {
        QEL_RAISE_ERROR(RecursiveError(), "Qel.Test.Recursion");
        return nullptr;
    }
    [[noreturn]] void Throw() override { throw RecursiveError(*this); }
};
std::atomic<int> RecursiveError::s_iRaisings{0};

// A class that forgets to override Throw.
class SlicedError : public Error
{
public:
    SlicedError() : Error(eERROR) { SetData(sMESSAGE, "sliced message"); }
};

// A class derived directly from Error, with its own Throw and Clone.
class DirectError : public Error
{
public:
    DirectError() : Error(eCRITICAL) { SetData(sMESSAGE, "direct"); }
    DirectError(const DirectError&) = default;
    std::shared_ptr<Error> Clone() const override { return std::make_shared<DirectError>(*this); }

protected:
    [[noreturn]] void Throw() override { throw DirectError(*this); }
};

template <typename T>
void ExpectCloneRaisesAs(const T& original)
{
    std::shared_ptr<Error> clone = original.Clone();
    try {
        QEL_RAISE_ERROR(*clone, "Qel.Test.Clone");
        ADD_FAILURE() << "not thrown";
    } catch (T& caught) {
        EXPECT_EQ(typeid(caught), typeid(T));
        EXPECT_EQ(caught.GetMessageA(), original.GetMessageA());
    } catch (...) {
        ADD_FAILURE() << "caught as another class: " << typeid(T).name();
    }
}

} // namespace

TEST(Raise, ForwardedErrorKeepsItsClassAndTrail)
{
    for (int depth : {0, 1, 3}) {
        try {
            Forward(depth);
            FAIL() << "not thrown";
        } catch (TrailError& error) {
            EXPECT_EQ(typeid(error), typeid(TrailError));
            EXPECT_EQ(error.GetMessageA(), "trail 7");
            EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "Qel.Test.Trail");
            EXPECT_EQ(error.GetData(AlertInfo::sCATEGORY), "Logic");
            EXPECT_EQ(error.GetData(AlertInfo::sSEVERITY), "Error");
            EXPECT_FALSE(error.GetData(AlertInfo::sTIME_STAMP).empty());
            EXPECT_EQ(error.GetData(AlertInfo::sTYPE_NAME), TypeName(typeid(TrailError)));
            EXPECT_FALSE(error.GetData(Error::sINHERITANCE).empty());
            // The raise, then each forwarding function (depth + 1 of them).
            auto trail = error.GetUnwindStack();
            ASSERT_EQ(trail->size(), static_cast<std::size_t>(depth + 2));
            EXPECT_EQ(trail->front().Get(CodeContext::sLINE), std::to_string(g_iRaiseLine.load()));
            EXPECT_EQ(trail->front().Get(CodeContext::sFUNCTION), "{anonymous}::RaiseTrail");
            for (std::size_t i = 1; i < trail->size(); ++i)
                EXPECT_EQ(trail->at(i).Get(CodeContext::sFUNCTION), "{anonymous}::Forward");
            EXPECT_TRUE(error.GetRaisedStatus());
        }
        EXPECT_EQ(ThreadSpecificErrorRecursionCount::Get(), 0);
        EXPECT_EQ(ThreadSpecificRaisedError::Get(), nullptr);
    }
}

TEST(Raise, ForwardingTurnsForeignExceptionsIntoErrors)
{
    try {
        try {
            throw std::runtime_error("disk full");
        }
        QEL_FORWARD_ERROR_WITH(int iRaiseLine = g_iRaiseLine; QEL_FORWARD_VARIABLE(iRaiseLine);
                               QEL_FORWARD_INFO("Step", 3))
        FAIL() << "not thrown";
    } catch (StdException& error) {
        EXPECT_EQ(error.GetMessageA(), "Caught std::exception - disk full");
        EXPECT_EQ(error.GetData(AlertInfo::sLOG_NAME), "");
        ASSERT_EQ(error.GetUnwindStack()->size(), 1u);
        const CodeContext& where = error.GetUnwindStack()->front();
        EXPECT_EQ(where.GetVariables().at("iRaiseLine"), std::to_string(g_iRaiseLine.load()));
        EXPECT_EQ(where.Get("Step"), "3");
    }
    try {
        try {
            throw 42;
        }
        QEL_FORWARD_ERROR
        FAIL() << "not thrown";
    } catch (UnknownError& error) {
        EXPECT_EQ(typeid(error), typeid(UnknownError));
        EXPECT_EQ(error.GetMessageA(), "No Message");
        EXPECT_EQ(error.GetData(AlertInfo::sCATEGORY), "Unknown");
    }
}

TEST(Raise, OneRaisedAndOneHandledEventPerError)
{
    QelTest::AlertRecorder recorder;
    for (int i = 0; i < 3; ++i) {
        try {
            Forward(2);
        } catch (TrailError&) {
            EXPECT_EQ(recorder.Count("handled"), static_cast<std::size_t>(i)); // not before the catch ends
        }
    }
    auto events = recorder.Events();
    ASSERT_EQ(events.size(), 6u);
    for (std::size_t i = 0; i < events.size(); i += 2) {
        EXPECT_EQ(events[i].kind, "raised");
        EXPECT_EQ(events[i + 1].kind, "handled");
        EXPECT_EQ(events[i].message, "trail 7");
        EXPECT_EQ(events[i + 1].message, "trail 7");
        // Raised on the object in the raising scope, handled on the copy that flew.
        EXPECT_NE(events[i].object, events[i + 1].object);
    }
}

TEST(Raise, InPlaceHandlerLetsTheCallerGoOn)
{
    QelTest::AlertRecorder recorder;
    recorder.HandleInPlace(true);
    bool after = false;
    {
        QEL_RAISE_HANDLEABLE_ERROR(TrailError(1), "Qel.Test");
        after = true;
    }
    EXPECT_TRUE(after);
    EXPECT_EQ(recorder.Count("raised"), 1u);
    EXPECT_EQ(recorder.Count("handled"), 1u);
    EXPECT_EQ(ThreadSpecificErrorRecursionCount::Get(), 0);

    // A site that does not allow in-place handling throws all the same.
    EXPECT_THROW(QEL_RAISE_ERROR(TrailError(2), "Qel.Test"), TrailError);
    recorder.HandleInPlace(false);
    EXPECT_THROW(QEL_RAISE_HANDLEABLE_ERROR(TrailError(3), "Qel.Test"), TrailError);
}

TEST(Raise, KeptErrorIsThrownAgainWithoutNewEvents)
{
    QelTest::AlertRecorder recorder;
    recorder.HandleInPlace(true);
    TrailError kept(5);
    kept.RaiseError(QEL_CODE_CONTEXT(), "Qel.Test", true);
    ASSERT_TRUE(kept.GetRaisedStatus());
    recorder.HandleInPlace(false);
    try {
        kept.RaiseError(QEL_CODE_CONTEXT(), "Qel.Test", true);
        FAIL() << "not thrown";
    } catch (TrailError& error) {
        EXPECT_EQ(error.GetUnwindStack()->size(), 2u);
    }
    EXPECT_EQ(recorder.Count("raised"), 1u);
    EXPECT_EQ(recorder.Count("handled"), 1u); // the copy that flew held the status
    EXPECT_FALSE(kept.GetRaisedStatus());
}

TEST(Raise, RecursionStopsAtTenAndThrowsTheFirstErrorAsPlainError)
{
    RecursiveError::s_iRaisings = 0;
    ASSERT_EQ(ThreadSpecificErrorRecursionCount::Get(), 0);
    testing::internal::CaptureStderr();
    try {
        QEL_RAISE_ERROR(RecursiveError(), "Qel.Test.Recursion");
        FAIL() << "not thrown";
    } catch (Error& error) {
        EXPECT_EQ(typeid(error), typeid(Error));
        EXPECT_EQ(error.GetMessageA(), "recursive");
    }
    std::string err = testing::internal::GetCapturedStderr();
    // The first raising and nine from call-stack captures; the tenth stopped the chain.
    EXPECT_EQ(RecursiveError::s_iRaisings.load(), 10);
    // Too long for the line of its tag: the pretty-printed text stands on a line of its own.
    EXPECT_NE(err.find("  <Circumstance>\n    Detected potential infinite error recursion, halting recursion and "
                       "throwing original error\n  </Circumstance>\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(ThreadSpecificErrorRecursionCount::Get(), 0);
    EXPECT_EQ(ThreadSpecificRaisedError::Get(), nullptr);
}

TEST(Raise, ClassWithoutItsOwnThrowIsSlicedWithAWarning)
{
    QelTest::AlertRecorder recorder;
    try {
        QEL_RAISE_ERROR(SlicedError(), "Qel.Test");
        FAIL() << "not thrown";
    } catch (SlicedError&) {
        FAIL() << "arrived with its own class";
    } catch (Error& error) {
        EXPECT_EQ(typeid(error), typeid(Error));
        EXPECT_EQ(error.GetMessageA(), "sliced message");
    }
    ASSERT_EQ(recorder.Count("warning"), 1u);
    for (const auto& event : recorder.Events())
        if (event.kind == "warning") {
            EXPECT_EQ(event.message, ReadableTypeName(typeid(SlicedError)) +
                                         " sliced to Qel::Core::Error in Error base class Throw() method");
            EXPECT_EQ(event.typeName, TypeName(typeid(ErrorSlicedOnThrow)));
        }
}

TEST(Raise, ClonesAreRaisedWithTheirExactClass)
{
    ExpectCloneRaisesAs(LogicError("logic"));
    ExpectCloneRaisesAs(IOError("io"));
    ExpectCloneRaisesAs(HardwareError("hardware"));
    ExpectCloneRaisesAs(OSError("os"));
    ExpectCloneRaisesAs(DirectError());
    ExpectCloneRaisesAs(TrailError(9));
}

TEST(Raise, WarningReturnsAndIsBroadcast)
{
    QelTest::AlertRecorder recorder;
    NoteWarning warning("careful");
    warning.RaiseWarning(QEL_CODE_CONTEXT(), "Qel.Test.Warn");
    QEL_RAISE_WARNING(NoteWarning("again"), "Qel.Test.Warn");
    EXPECT_EQ(warning.GetData(AlertInfo::sLOG_NAME), "Qel.Test.Warn");
    EXPECT_EQ(warning.GetUnwindStack()->size(), 1u);
    EXPECT_EQ(warning.GetCallStack(), nullptr);
    ASSERT_EQ(recorder.Count("warning"), 2u);
    EXPECT_EQ(recorder.Events()[0].message, "note careful");
    EXPECT_EQ(recorder.Events()[1].message, "note again");
}

TEST(Assertions, FailedAssertionSendsOneDebugLineAndGoesOn)
{
    QelTest::DebugCapture capture;
    QelTest::AlertRecorder recorder;
    EXPECT_FALSE(AssertFailed("x != 0", CodeContext("a.cpp", 12, "", "", "")));
    int x = 0;
    int line = __LINE__ + 1;
    QEL_ASSERT(x != 0);
    QEL_ASSERT(x == 0);
    EXPECT_FALSE(LogAssertFailed("y", CodeContext("b.cpp", 3, "", "", "")));
    auto texts = capture.Texts();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], "a.cpp(12): Failed Assertion(x != 0)\n");
    EXPECT_EQ(texts[1], std::string(__FILE__) + "(" + std::to_string(line) + "): Failed Assertion(x != 0)\n");
    EXPECT_EQ(texts[2], "b.cpp(3): Failed Assertion(y)\n");
    EXPECT_TRUE(recorder.Events().empty());
}

TEST(Assertions, LogAssertFailedLogsTheFailureAsARaisedErrorWithoutBroadcasting)
{
    QelTest::DebugCapture capture;
    QelTest::AlertRecorder recorder;
    QelTest::LogCapture log;
    EXPECT_FALSE(AssertFailed("plain != 0", CodeContext("p.cpp", 5, "", "", "")));
    EXPECT_FALSE(LogAssertFailed("logged != 0", CodeContext("l.cpp", 7, "", "", "")));
    // Only the logged assertion reaches the log: in XML form, as a raised error, and no listener
    // of the alert manager hears of either.
    // (Entries of earlier tests of the program may reach the capture too: only ours count.)
    auto ours = [&] {
        std::vector<QelLogEntry> found;
        for (const QelLogEntry& entry : log.Entries())
            if (entry.m_Message.find(" != 0") != std::string::npos) found.push_back(entry);
        return found;
    };
    ASSERT_TRUE(QelTest::Eventually([&] { return !ours().empty(); }));
    std::vector<QelLogEntry> entries = ours();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].m_Format, "xml");
    EXPECT_EQ(entries[0].m_Severity, QelLogError);
    EXPECT_NE(entries[0].m_Message.find("<Circumstance>Error Raised</Circumstance>"), std::string::npos);
    EXPECT_NE(entries[0].m_Message.find("logged != 0"), std::string::npos);
    EXPECT_EQ(entries[0].m_Message.find("plain != 0"), std::string::npos);
    EXPECT_TRUE(recorder.Events().empty());
}

TEST(RaiseThreads, EachThreadCountsItsOwnErrors)
{
    QelTest::AlertRecorder recorder;
    constexpr int kThreads = 4;
    constexpr int kErrors = 200;
    std::atomic<int> caught{0};
    std::atomic<int> badCounts{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kErrors; ++i) {
                try {
                    Forward(1);
                } catch (TrailError& error) {
                    if (error.GetUnwindStack()->size() == 3u) ++caught;
                }
                if (ThreadSpecificErrorRecursionCount::Get() != 0) ++badCounts;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(caught.load(), kThreads * kErrors);
    EXPECT_EQ(badCounts.load(), 0);
    EXPECT_EQ(recorder.Count("raised"), static_cast<std::size_t>(kThreads * kErrors));
    EXPECT_EQ(recorder.Count("handled"), static_cast<std::size_t>(kThreads * kErrors));
}

TEST(RaiseThreads, ErrorHandledOnAnotherThreadNeverDrivesItsCountNegative)
{
    std::shared_ptr<Error> kept;
    try {
        QEL_RAISE_ERROR(TrailError(1), "Qel.Test");
    } catch (Error& error) {
        kept = error.Clone(); // takes the raised status
    }
    ASSERT_TRUE(kept->GetRaisedStatus());
    std::int32_t countThere = -1;
    std::thread other([&] {
        kept.reset();
        countThere = ThreadSpecificErrorRecursionCount::Get();
    });
    other.join();
    EXPECT_EQ(countThere, 0);
    EXPECT_EQ(ThreadSpecificErrorRecursionCount::Get(), 0);
}
