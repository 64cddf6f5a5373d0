// The layout of a default log entry: the direct layout of short one-line entries must give the
// very bytes that the XML writer's pretty-print layout gives, whatever the texts hold.
#include <Infrastructure/QelCore/QelCore.h>

#include "Infrastructure/QelCore/Logging/DefaultLogService.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>

using namespace Qel::Core;

namespace {

// The entry as the writer lays it out: start tag with the severity, time stamp, logger, message
// (or the fragment of an "xml" entry), end tag, separator.
std::string LayoutThroughWriter(const QelLogEntry& entry)
{
    std::ostringstream out;
    XMLWriter writer;
    XMLAttributeMap<std::string> attributes;
    const char* severity = LogSeverityText(entry.m_Severity);
    if (*severity != '\0') attributes["Severity"] = XMLAttributeValue<std::string>(severity);
    out << writer.StartTag("LogEntry", attributes);
    out << writer.Tag("TimeStamp", XMLWriter::NO_ATTRIBUTES, entry.m_TimeStamp.ToString());
    out << writer.Tag("LogName", XMLWriter::NO_ATTRIBUTES, entry.m_LogName);
    if (entry.m_Format == "xml") {
        out << entry.m_Message;
        if (!entry.m_Message.empty() && entry.m_Message.back() != '\n') out << '\n';
    } else out << writer.Tag("Message", XMLWriter::NO_ATTRIBUTES, entry.m_Message);
    out << writer.EndAllTags() << '\n' << sDEFAULT_LOG_SEPARATOR << '\n';
    return out.str();
}

QelLogEntry MakeEntry(int severity, const std::string& logger, const std::string& message,
                      const std::string& format = "plain")
{
    QelLogEntry entry;
    entry.m_TimeStamp = Time(5, 1, 2024, Elapse(36672, Elapse::Seconds));
    entry.m_Severity = static_cast<QelLogSeverityEnum>(severity);
    entry.m_LogName = logger;
    entry.m_Message = message;
    entry.m_Format = format;
    return entry;
}

} // namespace

TEST(LogEntryLayout, DirectLayoutEqualsTheWritersAtTheMargin)
{
    // Message lengths on both sides of the point where the text leaves the tag's line.
    for (int severity = 0; severity <= 7; ++severity) {
        for (std::size_t length = 0; length <= 90; ++length) {
            QelLogEntry entry = MakeEntry(severity, "Qel.Core.Margin", std::string(length, 'm'));
            ASSERT_EQ(FormatDefaultLogEntry(entry), LayoutThroughWriter(entry)) << severity << " " << length;
        }
    }
    // Logger names around the margin as well.
    for (std::size_t length = 1; length <= 90; ++length) {
        QelLogEntry entry = MakeEntry(QelLogError, std::string(length, 'n'), "text");
        ASSERT_EQ(FormatDefaultLogEntry(entry), LayoutThroughWriter(entry)) << length;
    }
}

TEST(LogEntryLayout, DirectLayoutEqualsTheWritersForAnyText)
{
    // Escaped characters change the length that counts for the margin; line ends, tabs, control
    // bytes and broken UTF-8 must come out as the writer writes them.
    const std::string alphabet = std::string("ab <>&\"'\t\n\r\x01\x1f\x7f") + "\xC3\xA4" + "\xFF" + "\xE2\x82";
    std::mt19937 random(20241123);
    for (int round = 0; round < 3000; ++round) {
        std::string message;
        std::size_t length = random() % 100;
        for (std::size_t i = 0; i < length; ++i) message += alphabet[random() % alphabet.size()];
        std::string logger = "Qel." + std::string(random() % 40, 'x') + (round % 7 == 0 ? "<&>" : "");
        const char* format = round % 5 == 0 ? "other" : "plain";
        QelLogEntry entry = MakeEntry(static_cast<int>(random() % 8), logger, message, format);
        ASSERT_EQ(FormatDefaultLogEntry(entry), LayoutThroughWriter(entry)) << "round " << round;
    }
}

TEST(LogEntryLayout, XmlEntriesCarryTheFragmentUnchanged)
{
    QelLogEntry open = MakeEntry(QelLogError, "Qel.Core.Xml", "<Note/>", "xml");
    EXPECT_EQ(FormatDefaultLogEntry(open), LayoutThroughWriter(open));
    EXPECT_NE(FormatDefaultLogEntry(open).find("<Note/>\n</LogEntry>\n"), std::string::npos);

    QelLogEntry entry = MakeEntry(QelLogError, "Qel.Core.Xml", "<Error>\n  <Message>a &amp; b</Message>\n</Error>\n", "xml");
    std::string text = FormatDefaultLogEntry(entry);
    EXPECT_EQ(text, LayoutThroughWriter(entry));
    EXPECT_NE(text.find("  <LogName>Qel.Core.Xml</LogName>\n<Error>\n  <Message>a &amp; b</Message>\n</Error>\n</LogEntry>\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("<Message>a &amp;amp;"), std::string::npos);
}
