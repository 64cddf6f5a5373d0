// The alert data model: the default alert, shared bodies, code positions and the XML form.
#include <Infrastructure/QelCore/QelCore.h>

#include <gtest/gtest.h>

#include <sstream>

using namespace Qel::Core;

namespace {

// Exposes the protected severity setter of alerts.
class TestAlert : public AlertInfo
{
public:
    using AlertInfo::AlertInfo;
    using AlertInfo::SetSeverity;
};

QEL_DEFINE_WARNING(PlainWarning, Warning, "plain %1%", std::string)

std::string ToXMLText(AlertInfo& alert, const std::string& circumstance)
{
    XMLWriter writer;
    std::ostringstream out;
    alert.ToXML(writer, out, circumstance);
    return out.str();
}

} // namespace

TEST(AlertInfo, DefaultAlertHasItsFixedKeysAndEmptyStacks)
{
    AlertInfo alert;
    EXPECT_EQ(alert.GetData(AlertInfo::sMESSAGE), "No Message");
    EXPECT_EQ(alert.GetData(AlertInfo::sCATEGORY), "Unknown");
    EXPECT_TRUE(alert.DataExists(AlertInfo::sLOG_NAME));
    EXPECT_EQ(alert.GetData(AlertInfo::sLOG_NAME), "");
    EXPECT_EQ(alert.GetData(AlertInfo::sSEVERITY), "Unknown");
    EXPECT_EQ(static_cast<int>(alert.GetSeverity()), -1);
    // "YYYY/MM/DD hh:mm:ss.mmm"
    const std::string& stamp = alert.GetData(AlertInfo::sTIME_STAMP);
    ASSERT_EQ(stamp.size(), 23u);
    EXPECT_EQ(stamp[4], '/');
    EXPECT_EQ(stamp[10], ' ');
    EXPECT_EQ(stamp[19], '.');
    EXPECT_EQ(alert.GetCallStack(), nullptr);
    ASSERT_NE(alert.GetUnwindStack(), nullptr);
    EXPECT_TRUE(alert.GetUnwindStack()->empty());
    EXPECT_EQ(alert.XMLElementName(), "Alert");
}

TEST(AlertInfo, KeyConstantsHaveTheirTexts)
{
    EXPECT_EQ(AlertInfo::sMESSAGE, "Message");
    EXPECT_EQ(AlertInfo::sDISPLAY_MESSAGE, "DisplayMessage");
    EXPECT_EQ(AlertInfo::sDISPLAY_FORMAT, "DisplayFormat");
    EXPECT_EQ(AlertInfo::sSEVERITY, "Severity");
    EXPECT_EQ(AlertInfo::sCATEGORY, "Category");
    EXPECT_EQ(AlertInfo::sLOG_NAME, "LogName");
    EXPECT_EQ(AlertInfo::sTIME_STAMP, "TimeStamp");
    EXPECT_EQ(AlertInfo::sTYPE_NAME, "TypeName");
    EXPECT_EQ(AlertInfo::sALERT_MESSAGE_FORMATS, "_AlertMessageFormats_");
    EXPECT_EQ(CodeContext::sFILE, "File");
    EXPECT_EQ(CodeContext::sLINE, "Line");
    EXPECT_EQ(CodeContext::sBUILD_TIME, "CompileTime");
    EXPECT_EQ(CodeContext::sFUNCTION, "FunctionName");
    EXPECT_EQ(CodeContext::sSIGNATURE, "FunctionSignature");
    EXPECT_EQ(CodeContext::sPROCESS, "ProcessName");
    EXPECT_EQ(CodeContext::sPROCESS_ID, "ProcessID");
    EXPECT_EQ(CodeContext::sTHREAD, "ThreadName");
    EXPECT_EQ(CodeContext::sTHREAD_ID, "ThreadID");
    EXPECT_EQ(CodeContext::sOPERATING_SYSTEM, "OperatingSystem");
    EXPECT_EQ(CodeContext::sHOST, "HostName");
    EXPECT_EQ(Error::sINHERITANCE, "Inheritance");
    EXPECT_EQ(InvalidParameter::sNAME, "ParamName");
    EXPECT_EQ(InvalidParameter::sVALUE, "ParamValue");
}

TEST(AlertInfo, SeverityTextsFollowTheValue)
{
    TestAlert alert;
    const std::pair<int, const char*> cases[] = {
        {1, "Warning"}, {2, "Error"}, {4, "Critical"}, {-1, "Unknown"}, {0, "Unknown"}, {3, "Unknown"}};
    for (const auto& [value, text] : cases) {
        alert.SetSeverity(static_cast<AlertInfo::ESeverity>(value));
        EXPECT_EQ(alert.GetData(AlertInfo::sSEVERITY), text) << value;
        EXPECT_EQ(static_cast<int>(alert.GetSeverity()), value);
    }
}

TEST(AlertInfo, CopiesShareTheBagAndTheUnwindStack)
{
    AlertInfo original;
    AlertInfo copy(original);
    AlertInfo assigned;
    assigned = original;
    copy.SetData("Extra", "seen everywhere");
    EXPECT_EQ(original.GetData("Extra"), "seen everywhere");
    EXPECT_EQ(assigned.GetData("Extra"), "seen everywhere");
    assigned.PushContext(CodeContext("f.cpp", 3, "", "", ""));
    ASSERT_EQ(original.GetUnwindStack()->size(), 1u);
    EXPECT_EQ(copy.GetUnwindStack()->at(0).Get(CodeContext::sFILE), "f.cpp");
    EXPECT_EQ(original.GetUnwindStack(), copy.GetUnwindStack());
}

TEST(AlertInfo, RebuiltFromPartsIsUnsharedWithUnknownSeverity)
{
    StringMap data{{"Message", "rebuilt"}, {"Severity", "Error"}};
    AlertInfo::ContextStack calls{CodeContext("c.cpp", 1, "", "", "")};
    AlertInfo::ContextStack unwind{CodeContext("u.cpp", 2, "", "", ""), CodeContext("v.cpp", 3, "", "", "")};
    AlertInfo rebuilt(data, calls, unwind);
    EXPECT_EQ(rebuilt.GetMessageA(), "rebuilt");
    EXPECT_EQ(static_cast<int>(rebuilt.GetSeverity()), -1);
    ASSERT_NE(rebuilt.GetCallStack(), nullptr);
    EXPECT_EQ(rebuilt.GetCallStack()->size(), 1u);
    EXPECT_EQ(rebuilt.GetUnwindStack()->size(), 2u);
    rebuilt.SetData("Message", "changed");
    EXPECT_EQ(data["Message"], "rebuilt");
}

TEST(AlertInfo, DisplayMessageFallsBackToMessage)
{
    AlertInfo alert;
    alert.SetData(AlertInfo::sMESSAGE, "plain");
    EXPECT_EQ(alert.GetDisplayMessage(), "plain");
    alert.SetData(AlertInfo::sDISPLAY_MESSAGE, "");
    EXPECT_EQ(alert.GetDisplayMessage(), "plain");
    alert.SetData(AlertInfo::sDISPLAY_MESSAGE, "for people");
    EXPECT_EQ(alert.GetDisplayMessage(), "for people");
    EXPECT_EQ(alert.GetMessageA(), "plain");
}

TEST(AlertInfo, GetAllDataCopiesTheBagAndMissingKeysReadEmpty)
{
    AlertInfo alert;
    alert.SetData("Key", "Value");
    StringMap out{{"stale", "x"}};
    EXPECT_TRUE(alert.GetAllData(out));
    EXPECT_EQ(out.count("stale"), 0u);
    EXPECT_EQ(out.at("Key"), "Value");
    EXPECT_EQ(out.at("Message"), "No Message");
    EXPECT_EQ(alert.GetData("Missing"), "");
    EXPECT_FALSE(alert.DataExists("Missing"));
}

TEST(CodeContext, PositionKeysFollowTheArguments)
{
    CodeContext unknown("a.cpp", -1, "", "", "");
    EXPECT_EQ(unknown.Get(CodeContext::sFILE), "a.cpp");
    EXPECT_EQ(unknown.Get(CodeContext::sLINE), "Unknown");
    EXPECT_EQ(unknown.GetContextInfo().count(CodeContext::sBUILD_TIME), 0u);
    EXPECT_EQ(unknown.GetContextInfo().count(CodeContext::sFUNCTION), 0u);
    EXPECT_EQ(unknown.GetContextInfo().count(CodeContext::sSIGNATURE), 0u);
    EXPECT_EQ(unknown.Get(CodeContext::sFUNCTION), "");
    EXPECT_FALSE(unknown.HasVariableInfo());

    CodeContext full("b.cpp", 12, "Mon Nov 23 01:00:00 2026", "N::F", "void N::F(int)");
    EXPECT_EQ(full.Get(CodeContext::sLINE), "12");
    EXPECT_EQ(full.Get(CodeContext::sBUILD_TIME), "Mon Nov 23 01:00:00 2026");
    EXPECT_EQ(full.Get(CodeContext::sFUNCTION), "N::F");
    EXPECT_EQ(full.Get(CodeContext::sSIGNATURE), "void N::F(int)");

    full.SetVariable("count", 42);
    full.SetInfo("Step", 2.5);
    EXPECT_TRUE(full.HasVariableInfo());
    EXPECT_EQ(full.GetVariables().at("count"), "42");
    EXPECT_EQ(full.Get("Step"), "2.5");
}

TEST(CodeContext, MacroPositionNamesTheFunction)
{
    CodeContext here = QEL_CODE_CONTEXT();
    EXPECT_NE(here.Get(CodeContext::sFILE).find("AlertInfoTest.cpp"), std::string::npos);
    EXPECT_EQ(here.Get(CodeContext::sFUNCTION), "CodeContext_MacroPositionNamesTheFunction_Test::TestBody");
    EXPECT_EQ(here.Get(CodeContext::sSIGNATURE),
              "virtual void CodeContext_MacroPositionNamesTheFunction_Test::TestBody()");
    EXPECT_FALSE(here.Get(CodeContext::sBUILD_TIME).empty());
}

TEST(AlertXML, UnraisedWarningHasNeitherCircumstanceNorStacks)
{
    PlainWarning warning("text");
    std::string xml = ToXMLText(warning, "");
    EXPECT_EQ(xml.rfind("<Warning>\n", 0), 0u) << xml;
    EXPECT_NE(xml.find("\n  <Message>plain text</Message>\n"), std::string::npos) << xml;
    EXPECT_NE(xml.find("\n  <Severity>Warning</Severity>\n"), std::string::npos);
    EXPECT_EQ(xml.find("Circumstance"), std::string::npos);
    EXPECT_EQ(xml.find("UnwindStack"), std::string::npos);
    EXPECT_EQ(xml.find("CallStack"), std::string::npos);
    EXPECT_EQ(xml.substr(xml.size() - 12), "\n</Warning>\n");
}

TEST(AlertXML, CircumstanceComesFirstAndStacksHoldContexts)
{
    StringMap data{{"Message", "a < b & c"}};
    CodeContext withVariables("w.cpp", 7, "", "", "");
    withVariables.SetVariable("x", "1 > 0");
    AlertInfo::ContextStack unwind{CodeContext("u.cpp", 1, "", "", ""), withVariables};
    AlertInfo alert(data, {}, unwind);
    std::string xml = ToXMLText(alert, "Testing");
    EXPECT_EQ(xml.rfind("<Alert>\n  <Circumstance>Testing</Circumstance>\n", 0), 0u) << xml;
    EXPECT_NE(xml.find("\n  <Message>a &lt; b &amp; c</Message>\n"), std::string::npos) << xml;
    // The call stack is present but empty: no element at all.
    EXPECT_EQ(xml.find("CallStack"), std::string::npos);
    EXPECT_NE(xml.find("\n  <UnwindStack>\n    <Context>\n      <"), std::string::npos) << xml;
    EXPECT_NE(xml.find("\n      <Variables>\n        <Var name=\"x\" >1 &gt; 0</Var>\n      </Variables>\n"),
              std::string::npos)
        << xml;
    // Only the context with variables has a Variables element.
    EXPECT_EQ(xml.find("<Variables>"), xml.rfind("<Variables>"));
    const std::string end = "    </Context>\n  </UnwindStack>\n</Alert>\n";
    ASSERT_GE(xml.size(), end.size());
    EXPECT_EQ(xml.substr(xml.size() - end.size()), end);
}

TEST(AlertXML, CompactWriterGivesOneLine)
{
    StringMap data{{"Message", "m"}};
    AlertInfo alert(data, {}, {});
    XMLWriter writer(XMLFormatter::CreateCompact());
    std::ostringstream out;
    alert.ToXML(writer, out, "c");
    EXPECT_EQ(out.str(), "<Alert><Circumstance>c</Circumstance><Message>m</Message></Alert>");
}

TEST(AlertXML, ControlCharactersAndInvalidUtf8StayWellFormed)
{
    // Control characters become their visible stand-ins (U+2401), a byte that isn't UTF-8 its
    // Latin-1 letter; tab, line feed and valid UTF-8 stay.
    StringMap data{{"Message", std::string("a\x01z \xFF \xC3\xA9\tq", 10)}};
    AlertInfo alert(data, {}, {});
    XMLWriter writer(XMLFormatter::CreateCompact());
    std::ostringstream out;
    alert.ToXML(writer, out, "");
    EXPECT_EQ(out.str(), "<Alert><Message>a\xE2\x90\x81z \xC3\xBF \xC3\xA9\tq</Message></Alert>");
}
