// The alert manager: filters, records, warning limits, in-place handlers, and raising on many
// threads while listeners come and go.
#include <Infrastructure/QelCore/QelCore.h>

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>

using namespace Qel::Core;

namespace {

QEL_DEFINE_ERROR(PlainError, LogicError, eERROR, "plain %1%", int)
QEL_DEFINE_ERROR(SevereError, LogicError, eCRITICAL, "severe")
QEL_DEFINE_ERROR(DerivedError, PlainError, eERROR, "derived")
QEL_DEFINE_WARNING(NoticeWarning, Warning, "notice %1%", int)
QEL_DEFINE_WARNING(LimitedWarning, Warning, "limited")
QEL_DEFINE_ERROR(RecordA, LogicError, eERROR, "A")
QEL_DEFINE_ERROR(RecordB, LogicError, eERROR, "B")
QEL_DEFINE_ERROR(HandlerOnly, LogicError, eERROR, "never raised")
QEL_DEFINE_ERROR(BusyError, LogicError, eERROR, "busy")
QEL_DEFINE_WARNING(ChainWarning, Warning, "chain %1%", int)
QEL_DEFINE_WARNING(EndlessWarning, Warning, "chain %1%", int)

// Told of link n of a chain of warnings of class W, raises link n + 1, up to `last` (0: no end).
template <typename W>
struct ChainRaiser : AlertListener
{
    explicit ChainRaiser(int last) : m_iLast(last) { AlertManager::Instance()->AddAlertListener(*this); }
    ~ChainRaiser() override { RemoveAllNotificationSources(); }
    void WarningRaised(Warning& warning) override
    {
        if (dynamic_cast<W*>(&warning) == nullptr) return;
        ++m_iHeard;
        int link = std::stoi(warning.GetMessageA().substr(6));
        if (m_iLast == 0 || link < m_iLast) QEL_RAISE_WARNING(W(link + 1), "Qel.Test.Chain");
    }
    int m_iLast;
    int m_iHeard = 0;
};

// The texts of the debug output that speak of a cut chain.
std::vector<std::string> CutReports(QelTest::DebugCapture& capture)
{
    std::vector<std::string> found;
    for (const std::string& text : capture.Texts())
        if (text.find("chain cut") != std::string::npos) found.push_back(text);
    return found;
}

AlertManager& Manager()
{
    return *AlertManager::Instance();
}

// Logs the calls a handler gets, as "<name>:<call>".
struct LoggingHandler : ErrorHandler
{
    LoggingHandler(std::string name, bool take, std::vector<std::string>& log)
        : m_sName(std::move(name)), m_bTake(take), m_Log(log)
    {
    }
    bool Handle(Error&) override
    {
        m_Log.push_back(m_sName + ":Handle");
        return m_bTake;
    }
    void HandledByPrior(Error&) override { m_Log.push_back(m_sName + ":HandledByPrior"); }
    void HandledByLatter(Error&) override { m_Log.push_back(m_sName + ":HandledByLatter"); }
    std::string m_sName;
    bool m_bTake;
    std::vector<std::string>& m_Log;
};

struct HandlerScope
{
    HandlerScope(const std::type_info& type, std::shared_ptr<ErrorHandler> handler)
        : m_sType(TypeName(type)), m_spHandler(std::move(handler))
    {
        Manager().AddErrorHandler(m_sType, m_spHandler);
    }
    ~HandlerScope() { Manager().RemoveErrorHandler(m_sType, m_spHandler); }
    std::string m_sType;
    std::shared_ptr<ErrorHandler> m_spHandler;
};

} // namespace

TEST(AlertManager, SeverityMasksChooseTheAlerts)
{
    AlertListener listener;
    NoticeWarning warning(1);
    PlainError error(1);
    SevereError severe;
    const std::pair<unsigned, std::array<bool, 3>> cases[] = {
        {7, {true, true, true}}, {6, {false, true, true}}, {2, {false, true, false}}, {4, {false, false, true}}};
    for (const auto& [mask, expected] : cases) {
        listener.SetSeverityFilter(mask);
        EXPECT_EQ(listener.IsInterestedIn(warning), expected[0]) << mask;
        EXPECT_EQ(listener.IsInterestedIn(error), expected[1]) << mask;
        EXPECT_EQ(listener.IsInterestedIn(severe), expected[2]) << mask;
    }
}

TEST(AlertManager, DataFiltersChooseByValue)
{
    AlertListener listener;
    PlainError error(1);
    NoticeWarning warning(2);
    SevereError severe;
    listener.AddDataFilter(AlertInfo::sMESSAGE, "plain 1");
    EXPECT_TRUE(listener.IsInterestedIn(error));
    EXPECT_FALSE(listener.IsInterestedIn(warning));
    EXPECT_FALSE(listener.IsInterestedIn(severe));
    listener.AddDataFilter(AlertInfo::sMESSAGE, "severe");
    EXPECT_TRUE(listener.IsInterestedIn(severe));
    listener.RemoveDataFilter(AlertInfo::sMESSAGE);
    listener.AddDataFilter("TestKey", "TestValue");
    EXPECT_FALSE(listener.IsInterestedIn(error));
    error.SetData("TestKey", "TestValue");
    EXPECT_TRUE(listener.IsInterestedIn(error));
}

TEST(AlertManager, ListenerHearsRaisedHandledAndWarnings)
{
    QelTest::AlertRecorder recorder;
    try {
        QEL_RAISE_ERROR(PlainError(3), "Qel.Test");
    } catch (PlainError&) {
    }
    EXPECT_EQ(recorder.Count("raised"), 1u);
    EXPECT_EQ(recorder.Count("handled"), 1u);
    EXPECT_EQ(recorder.Count("warning"), 0u);
    QEL_RAISE_WARNING(NoticeWarning(4), "Qel.Test");
    EXPECT_EQ(recorder.Count("warning"), 1u);
    // The manager kept the thread's last error, as a copy that holds no raised status.
    std::shared_ptr<Error> last = Manager().GetCurrentError();
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->GetMessageA(), "plain 3");
    EXPECT_FALSE(last->GetRaisedStatus());
}

TEST(AlertManager, WarningLimitsSilenceAndResetLetThroughAgain)
{
    QelTest::AlertRecorder recorder;
    LimitedWarning::SetMaxWarnings(1, true);
    QEL_RAISE_WARNING(LimitedWarning(), "Qel.Test");
    QEL_RAISE_WARNING(LimitedWarning(), "Qel.Test");
    EXPECT_EQ(recorder.Count("warning"), 1u);
    std::set<WarningRecord, SSortWarnings> records;
    Manager().GetRaisedWarningRecords(records);
    auto record = std::find_if(records.begin(), records.end(),
                               [](const WarningRecord& r) { return r.GetClass() == ReadableTypeName(typeid(LimitedWarning)); });
    ASSERT_NE(record, records.end());
    EXPECT_EQ(record->GetMaxWarnings(), 1u);
    EXPECT_EQ(record->GetWarningCount(), 1u);
    EXPECT_GE(record->GetSilencedCount(), 1u);
    LimitedWarning::SetMaxWarnings(5, false); // a record is there: it keeps its limit
    LimitedWarning::ResetWarningCount();
    QEL_RAISE_WARNING(LimitedWarning(), "Qel.Test");
    EXPECT_EQ(recorder.Count("warning"), 2u);
    QEL_RAISE_WARNING(LimitedWarning(), "Qel.Test");
    EXPECT_EQ(recorder.Count("warning"), 2u);
}

TEST(AlertManager, RecordsListRaisedClassesMostRaisedFirst)
{
    std::vector<std::string> log;
    HandlerScope onlyHandler(typeid(HandlerOnly), std::make_shared<LoggingHandler>("h", false, log));
    for (int i = 0; i < 2; ++i) EXPECT_THROW(QEL_RAISE_ERROR(RecordB(), "Qel.Test"), RecordB);
    for (int i = 0; i < 3; ++i) EXPECT_THROW(QEL_RAISE_ERROR(RecordA(), "Qel.Test"), RecordA);
    std::set<ErrorRecord, SSortErrors> records;
    int count = Manager().GetRaisedErrorRecords(records);
    EXPECT_EQ(count, static_cast<int>(records.size()));
    std::vector<std::string> order;
    for (const ErrorRecord& record : records) {
        if (record.GetClass() == ReadableTypeName(typeid(RecordA))) {
            EXPECT_EQ(record.GetRaisedCount(), 3u);
            EXPECT_EQ(record.GetCategory(), "Logic");
            EXPECT_EQ(record.GetSeverity(), "Error");
        }
        order.push_back(record.GetClass());
        EXPECT_NE(record.GetClass(), ReadableTypeName(typeid(HandlerOnly)));
    }
    auto a = std::find(order.begin(), order.end(), ReadableTypeName(typeid(RecordA)));
    auto b = std::find(order.begin(), order.end(), ReadableTypeName(typeid(RecordB)));
    ASSERT_NE(a, order.end());
    ASSERT_NE(b, order.end());
    EXPECT_LT(a, b);
}

TEST(InPlaceHandlers, FirstTakesTheErrorAndTheSecondHearsOfIt)
{
    std::vector<std::string> log;
    HandlerScope first(typeid(PlainError), std::make_shared<LoggingHandler>("first", true, log));
    HandlerScope second(typeid(PlainError), std::make_shared<LoggingHandler>("second", true, log));
    bool after = false;
    QEL_RAISE_HANDLEABLE_ERROR(PlainError(1), "Qel.Test");
    after = true;
    EXPECT_TRUE(after);
    EXPECT_EQ(log, (std::vector<std::string>{"first:Handle", "second:HandledByPrior"}));
}

TEST(InPlaceHandlers, DeclinerHearsOfTheHandlerBehindIt)
{
    std::vector<std::string> log;
    HandlerScope first(typeid(PlainError), std::make_shared<LoggingHandler>("first", false, log));
    HandlerScope second(typeid(PlainError), std::make_shared<LoggingHandler>("second", true, log));
    QEL_RAISE_HANDLEABLE_ERROR(PlainError(1), "Qel.Test");
    EXPECT_EQ(log, (std::vector<std::string>{"first:Handle", "second:Handle", "first:HandledByLatter"}));
}

TEST(InPlaceHandlers, BaseClassHandlerTakesWhatTheDerivedOneDeclines)
{
    std::vector<std::string> log;
    HandlerScope derived(typeid(DerivedError), std::make_shared<LoggingHandler>("derived", false, log));
    HandlerScope base(typeid(PlainError), std::make_shared<LoggingHandler>("base", true, log));
    QEL_RAISE_HANDLEABLE_ERROR(DerivedError(), "Qel.Test");
    EXPECT_EQ(log, (std::vector<std::string>{"derived:Handle", "base:Handle", "derived:HandledByLatter"}));
}

TEST(InPlaceHandlers, AllDeclineOrNotAllowedMeansThrown)
{
    std::vector<std::string> log;
    HandlerScope first(typeid(PlainError), std::make_shared<LoggingHandler>("first", false, log));
    HandlerScope second(typeid(PlainError), std::make_shared<LoggingHandler>("second", false, log));
    EXPECT_THROW(QEL_RAISE_HANDLEABLE_ERROR(PlainError(1), "Qel.Test"), PlainError);
    EXPECT_EQ(log, (std::vector<std::string>{"first:Handle", "second:Handle"}));
    log.clear();
    EXPECT_THROW(QEL_RAISE_ERROR(PlainError(1), "Qel.Test"), PlainError);
    EXPECT_TRUE(log.empty());
    Manager().AddErrorHandler(TypeName(typeid(PlainError)), nullptr); // ignored
}

TEST(AlertManagerThreads, RaisingOnFourThreadsWhileListenersComeAndGo)
{
    struct Counting : AlertListener
    {
        std::atomic<int> raised{0}, handled{0};
        void ErrorRaised(Error& error) override
        {
            if (error.GetMessageA() == "plain 77") ++raised;
        }
        void ErrorHandled(Error& error) override
        {
            if (error.GetMessageA() == "plain 77") ++handled;
        }
        ~Counting() override { RemoveAllNotificationSources(); }
    } counting;
    Manager().AddAlertListener(counting);
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop.load()) {
            AlertListener passing;
            Manager().AddAlertListener(passing);
            Manager().RemoveAlertListener(passing);
        }
    });
    std::vector<std::thread> raisers;
    for (int t = 0; t < 4; ++t)
        raisers.emplace_back([] {
            for (int i = 0; i < 1000; ++i) {
                try {
                    QEL_RAISE_ERROR(PlainError(77), "Qel.Test");
                } catch (PlainError&) {
                }
            }
        });
    for (auto& raiser : raisers) raiser.join();
    stop = true;
    churn.join();
    Manager().RemoveAlertListener(counting);
    EXPECT_EQ(counting.raised.load(), 4000);
    EXPECT_EQ(counting.handled.load(), 4000);
}

TEST(AlertManager, ListenerThatFailsOnEveryAlertCannotRecurseForEver)
{
    struct Failing : AlertListener
    {
        int warnings = 0;
        void WarningRaised(Warning&) override
        {
            ++warnings;
            throw std::runtime_error("listener broken");
        }
        ~Failing() override { RemoveAllNotificationSources(); }
    } failing;
    Manager().AddAlertListener(failing);
    QEL_RAISE_WARNING(NoticeWarning(9), "Qel.Test"); // returns
    Manager().RemoveAlertListener(failing);
    EXPECT_GE(failing.warnings, 2);                    // the warning, and warnings about the failure
    EXPECT_LE(failing.warnings, g_iMAX_ALERT_NESTING);
}

TEST(AlertNesting, ChainsBelowTheGuardAreDeliveredRecordedAndLogged)
{
    // Records outlive the test: count what this raising adds.
    auto recorded = [] {
        std::set<WarningRecord, SSortWarnings> records;
        Manager().GetRaisedWarningRecords(records);
        for (const WarningRecord& record : records)
            if (record.GetClass() == ReadableTypeName(typeid(ChainWarning))) return record.GetRaisedCount();
        return 0ul;
    };
    const unsigned long before = recorded();
    QelTest::DebugCapture debug;
    QelTest::LogCapture log;
    QelTest::AlertRecorder recorder;
    ChainRaiser<ChainWarning> chain(12);
    QEL_RAISE_WARNING(ChainWarning(1), "Qel.Test.Chain");
    EXPECT_EQ(chain.m_iHeard, 12);
    std::vector<std::string> messages;
    for (const auto& event : recorder.Events())
        if (event.kind == "warning") messages.push_back(event.message);
    std::vector<std::string> expected;
    for (int link = 1; link <= 12; ++link) expected.push_back("chain " + std::to_string(link));
    std::sort(messages.begin(), messages.end()); // the deepest link is recorded first
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(messages, expected);
    EXPECT_EQ(recorded() - before, 12u);
    EXPECT_TRUE(QelTest::Eventually([&] { return log.Holds(">chain 11<") && log.Holds(">chain 12<"); }));
    EXPECT_TRUE(CutReports(debug).empty());
}

TEST(AlertNesting, EndlessChainIsCutAtTheGuardAndTheCutIsSaid)
{
    QelTest::DebugCapture debug;
    QelTest::LogCapture log;
    ChainRaiser<EndlessWarning> chain(0);
    QEL_RAISE_WARNING(EndlessWarning(1), "Qel.Test.Chain"); // returns
    EXPECT_EQ(chain.m_iHeard, g_iMAX_ALERT_NESTING);
    const std::string cut = "Alerts nested 64 deep on this thread, each raised by a listener of the one before: "
                            "chain cut; the warning " + ReadableTypeName(typeid(EndlessWarning)) +
                            " \"chain 65\" was not broadcast or recorded";
    EXPECT_EQ(CutReports(debug), std::vector<std::string>{cut + "\n"});
    EXPECT_TRUE(QelTest::Eventually([&] { return log.Holds(cut); }));
}

TEST(AlertManagerThreads, HandlerThatWarnsDoesNotDeadlockWithARaisingThread)
{
    // The handler raises a warning (it needs the alert source) while another thread raises an
    // error (it holds the alert source while the manager records the error).
    struct WarningHandler : ErrorHandler
    {
        std::atomic<int> handled{0};
        bool Handle(Error&) override
        {
            QEL_RAISE_WARNING(NoticeWarning(3), "Qel.Test");
            ++handled;
            return true;
        }
    };
    auto handler = std::make_shared<WarningHandler>();
    HandlerScope scope(typeid(DerivedError), handler);
    QelTest::Watchdog watchdog("in-place handler raising a warning beside a raising thread");
    constexpr int kRounds = 300;
    std::atomic<int> thrown{0};
    std::thread handling([&] {
        for (int i = 0; i < kRounds; ++i) QEL_RAISE_HANDLEABLE_ERROR(DerivedError(), "Qel.Test");
    });
    std::thread raising([&] {
        for (int i = 0; i < kRounds; ++i) {
            try {
                QEL_RAISE_ERROR(BusyError(), "Qel.Test");
            } catch (BusyError&) {
                ++thrown;
            }
        }
    });
    handling.join();
    raising.join();
    EXPECT_EQ(handler->handled.load(), kRounds);
    EXPECT_EQ(thrown.load(), kRounds);
}
