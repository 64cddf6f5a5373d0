// Alerts under heap exhaustion: this program replaces the global operator new (which takes over
// the library's allocations too) and lets it refuse the N-th allocation of a raising, for every N
// until a raising needs no more. Whatever the refusal point, a raised error arrives as its own
// class or as AllocationFailed, a raised warning reaches the listeners as its own class or as
// AllocationFailedWarning, and std::bad_alloc never comes out of the raising macros.
#include <Infrastructure/QelCore/QelCore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <typeinfo>

namespace {

// The refusal schedule of the calling thread: 0 is off; otherwise the allocation that brings the
// countdown to 0 is refused, and with `t_bPersistent` every one after it too.
thread_local long t_iCountdown = 0;
thread_local bool t_bPersistent = false;
thread_local bool t_bRefused = false;

void* Allocate(std::size_t size)
{
    if (t_iCountdown > 0) {
        if (t_bRefused) {
            if (t_bPersistent) return nullptr;
        } else if (--t_iCountdown == 0) {
            t_bRefused = true;
            if (t_bPersistent) t_iCountdown = 1; // stays armed: every later allocation is refused
            return nullptr;
        }
    }
    return std::malloc(size == 0 ? 1 : size);
}

} // namespace

void* operator new(std::size_t size)
{
    if (void* p = Allocate(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size)
{
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete[](void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept
{
    std::free(p);
}

using namespace Qel::Core;

namespace {

QEL_DEFINE_ERROR(StarvedError, LogicError, eERROR, "starved error %1% with a text of some length: %2%", int,
                 std::string)
QEL_DEFINE_WARNING(StarvedWarning, Warning, "starved warning %1% with a text of some length: %2%", int,
                   std::string)

const char* const kLongText = "a text long enough to live on the heap rather than inside the string";

// Arms the schedule for one raising; Disarm tells whether the refusal point was reached.
void Arm(long n, bool persistent)
{
    t_bRefused = false;
    t_bPersistent = persistent;
    t_iCountdown = n;
}
bool Disarm()
{
    t_iCountdown = 0;
    bool refused = t_bRefused;
    t_bRefused = false;
    return refused;
}

// Notes the class of the first alert it hears in each round, without allocating.
struct FirstHeard : AlertListener
{
    FirstHeard() { AlertManager::Instance()->AddAlertListener(*this); }
    ~FirstHeard() override { RemoveAllNotificationSources(); }
    void ErrorRaised(Error& error) override { Note(typeid(error)); }
    void WarningRaised(Warning& warning) override { Note(typeid(warning)); }
    void Note(const std::type_info& type)
    {
        if (m_pFirst == nullptr) m_pFirst = &type;
    }
    const std::type_info* m_pFirst = nullptr;
};

enum class Outcome { Returned, Typed, AllocationFailed, BadAlloc, Other };

const char* Name(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Returned: return "returned";
    case Outcome::Typed: return "typed";
    case Outcome::AllocationFailed: return "AllocationFailed";
    case Outcome::BadAlloc: return "std::bad_alloc";
    default: return "something else";
    }
}

constexpr long kMaxPoints = 5000;

} // namespace

TEST(AlertExhaustion, RaisedErrorIsAlwaysTypedOrAllocationFailed)
{
    FirstHeard heard;
    for (bool persistent : {false, true}) {
        long points = 0, typed = 0, standIns = 0;
        for (long n = 1; n <= kMaxPoints; ++n) {
            heard.m_pFirst = nullptr;
            Outcome outcome = Outcome::Returned;
            Arm(n, persistent);
            try {
                QEL_RAISE_ERROR(StarvedError(static_cast<int>(n), kLongText), "Qel.Test.Exhaustion.ErrorLogger");
            } catch (StarvedError&) {
                outcome = Outcome::Typed;
            } catch (AllocationFailed&) {
                outcome = Outcome::AllocationFailed;
            } catch (std::bad_alloc&) {
                outcome = Outcome::BadAlloc;
            } catch (...) {
                outcome = Outcome::Other;
            }
            bool refused = Disarm();
            if (!refused) break; // the raising needed fewer than n allocations
            ++points;
            typed += outcome == Outcome::Typed;
            standIns += outcome == Outcome::AllocationFailed;
            EXPECT_TRUE(outcome == Outcome::Typed || outcome == Outcome::AllocationFailed)
                << "refusal at allocation " << n << (persistent ? " and after" : "") << ": " << Name(outcome);
            // Listeners heard the same class that was thrown.
            if (heard.m_pFirst != nullptr) {
                const std::type_info& thrown =
                    outcome == Outcome::Typed ? typeid(StarvedError) : typeid(AllocationFailed);
                EXPECT_EQ(*heard.m_pFirst, thrown) << n;
            }
        }
        EXPECT_GT(points, 10) << "the raising should need many allocations";
        EXPECT_LT(points, kMaxPoints);
        // A refusal while the call site builds its arguments leaves only the stand-in; after
        // that the error itself exists and is thrown.
        EXPECT_GT(standIns, 0);
        EXPECT_GT(typed, 0);
    }
    // And with the heap back, the same raising is whole again.
    try {
        QEL_RAISE_ERROR(StarvedError(1, "x"), "Qel.Test.Exhaustion.ErrorLogger");
    } catch (StarvedError& error) {
        EXPECT_EQ(error.GetMessageA(), "starved error 1 with a text of some length: x");
    }
}

TEST(AlertExhaustion, RaisedWarningAlwaysReturnsAndIsHeardTyped)
{
    FirstHeard heard;
    for (bool persistent : {false, true}) {
        long points = 0;
        for (long n = 1; n <= kMaxPoints; ++n) {
            heard.m_pFirst = nullptr;
            Outcome outcome = Outcome::Returned;
            Arm(n, persistent);
            try {
                QEL_RAISE_WARNING(StarvedWarning(static_cast<int>(n), kLongText), "Qel.Test.Exhaustion.WarningLogger");
            } catch (std::bad_alloc&) {
                outcome = Outcome::BadAlloc;
            } catch (...) {
                outcome = Outcome::Other;
            }
            bool refused = Disarm();
            if (!refused) break;
            ++points;
            EXPECT_EQ(outcome, Outcome::Returned)
                << "refusal at allocation " << n << (persistent ? " and after" : "") << ": " << Name(outcome);
            ASSERT_NE(heard.m_pFirst, nullptr) << "no listener heard the warning; refusal at " << n;
            EXPECT_TRUE(*heard.m_pFirst == typeid(StarvedWarning) || *heard.m_pFirst == typeid(AllocationFailedWarning))
                << n << ": " << heard.m_pFirst->name();
        }
        EXPECT_GT(points, 10);
        EXPECT_LT(points, kMaxPoints);
    }
}
