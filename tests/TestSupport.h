// Helpers shared by the unit tests: capture of the debug output and a counting alert observer.
#pragma once

#include "Infrastructure/QelCore/ErrorHandling/StandIns.h"
#include "Infrastructure/QelCore/Platform/Platform.h"

#include <mutex>
#include <string>
#include <vector>

namespace QelTest {

// Collects the debug output while it lives.
class DebugCapture
{
public:
    DebugCapture()
    {
        m_Previous = Qel::Core::Platform::SetDebugOutputHook([this](const std::string& text) {
            std::lock_guard<std::mutex> guard(m_Mutex);
            m_Texts.push_back(text);
        });
    }
    ~DebugCapture() { Qel::Core::Platform::SetDebugOutputHook(m_Previous); }
    std::vector<std::string> Texts()
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Texts;
    }

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Texts;
    Qel::Core::Platform::DebugOutputHook m_Previous;
};

// Records every alert the broker broadcasts while it is installed.
class AlertRecorder : public Qel::Core::StandIns::AlertObserver
{
public:
    struct Event
    {
        std::string kind;
        std::string message;
        std::string typeName;
        const void* object;
    };

    AlertRecorder() { m_pPrevious = Qel::Core::StandIns::SetAlertObserver(this); }
    ~AlertRecorder() override { Qel::Core::StandIns::SetAlertObserver(m_pPrevious); }

    void ErrorRaised(Qel::Core::Error& error) override { Add("raised", error); }
    void ErrorHandled(Qel::Core::Error& error) override { Add("handled", error); }
    void WarningRaised(Qel::Core::Warning& warning) override { Add("warning", warning); }
    bool UseErrorHandler(Qel::Core::Error&) override { return m_bHandleInPlace; }

    void HandleInPlace(bool handle) { m_bHandleInPlace = handle; }
    std::vector<Event> Events()
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Events;
    }
    std::size_t Count(const std::string& kind)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        std::size_t count = 0;
        for (const Event& event : m_Events) count += event.kind == kind;
        return count;
    }

private:
    void Add(const std::string& kind, Qel::Core::AlertInfo& alert)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        m_Events.push_back({kind, alert.GetMessageA(), alert.GetData(Qel::Core::AlertInfo::sTYPE_NAME), &alert});
    }

    std::mutex m_Mutex;
    std::vector<Event> m_Events;
    bool m_bHandleInPlace = false;
    Qel::Core::StandIns::AlertObserver* m_pPrevious = nullptr;
};

} // namespace QelTest
