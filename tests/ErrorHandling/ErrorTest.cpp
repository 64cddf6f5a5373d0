// Alert classes: what the defining macros produce, categories, formats and the raised status.
#include <Infrastructure/QelCore/QelCore.h>

#include <gtest/gtest.h>

using namespace Qel::Core;

namespace {

QEL_DEFINE_ERROR(BasicError, LogicError, eERROR, "Basic Error")
QEL_DEFINE_ERROR(CriticalError, LogicError, eCRITICAL, "Basic Error")
QEL_DEFINE_WARNING(EightWarning, Warning, "%1%,%2%,%3$x,%4%,%5$x,%6%,%7%,%8%", char, int, int, int, int,
                   double, double, std::string)
QEL_DEFINE_ERROR(BadFormatError, IOError, eERROR, "broken %1", int)
QEL_DEFINE_ERROR(TwoArgumentError, IOError, eERROR, "%1% and %2% and %3%", int, int)
QEL_DEFINE_ERROR(ParentError, HardwareError, eERROR, "parent %1%", int)
QEL_DEFINE_ERROR(ChildError, ParentError, eERROR, "child %1%", std::string)

std::string Chain(std::initializer_list<const std::type_info*> types)
{
    std::string chain;
    for (const std::type_info* type : types) chain += (chain.empty() ? "" : "=>") + TypeName(*type);
    return chain;
}

} // namespace

TEST(AlertClasses, MacroErrorCarriesMessageCategorySeverityAndType)
{
    BasicError basic;
    EXPECT_EQ(basic.GetMessageA(), "Basic Error");
    EXPECT_EQ(basic.GetDisplayMessage(), "Basic Error");
    EXPECT_EQ(basic.GetData(AlertInfo::sDISPLAY_MESSAGE), "Basic Error");
    EXPECT_EQ(basic.GetData(AlertInfo::sCATEGORY), LogicError::sCATEGORY);
    EXPECT_EQ(basic.GetSeverity(), AlertInfo::eERROR);
    EXPECT_EQ(basic.GetData(AlertInfo::sSEVERITY), "Error");
    EXPECT_EQ(basic.GetData(AlertInfo::sTYPE_NAME), TypeName(typeid(BasicError)));
    EXPECT_EQ(basic.GetData(Error::sINHERITANCE), Chain({&typeid(Error), &typeid(LogicError), &typeid(BasicError)}));
    EXPECT_EQ(basic.XMLElementName(), "Error");
    EXPECT_FALSE(basic.GetRaisedStatus());

    CriticalError critical;
    EXPECT_EQ(critical.GetSeverity(), AlertInfo::eCRITICAL);
    EXPECT_EQ(critical.GetData(AlertInfo::sSEVERITY), "Critical");
}

TEST(AlertClasses, EightArgumentsWithPositionalFlags)
{
    EightWarning warning('a', -15, 15, -31, 31, 1.5, 2.5, "Basic Message");
    EXPECT_EQ(warning.GetMessageA(), "a,-15,f,-31,1f,1.5,2.5,Basic Message");
    EXPECT_EQ(warning.GetSeverity(), AlertInfo::eWARNING);
    EXPECT_EQ(warning.XMLElementName(), "Warning");
    EXPECT_FALSE(warning.DataExists(Error::sINHERITANCE));
    EXPECT_EQ(warning.GetData(AlertInfo::sTYPE_NAME), TypeName(typeid(EightWarning)));
}

TEST(AlertClasses, BadFormatOrArgumentCountLeavesAFixedMessage)
{
    for (int round = 0; round < 2; ++round) {
        testing::internal::CaptureStderr();
        std::string message;
        if (round == 0) {
            BadFormatError error(1);
            message = error.GetMessageA();
        } else {
            TwoArgumentError error(1, 2);
            message = error.GetMessageA();
        }
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err, "Failed to construct alert due to exception!\n");
        EXPECT_EQ(message, "Failed to construct alert message due to exception.");
    }
    // The alert lives on and can be raised.
    try {
        QEL_RAISE_ERROR(TwoArgumentError(1, 2), "Qel.Test");
        FAIL() << "not thrown";
    } catch (TwoArgumentError& error) {
        EXPECT_EQ(error.GetMessageA(), "Failed to construct alert message due to exception.");
    }
}

TEST(AlertClasses, CategoryBasesHaveTheirTexts)
{
    EXPECT_EQ(LogicError("").GetData(AlertInfo::sCATEGORY), "Logic");
    EXPECT_EQ(HardwareError("").GetData(AlertInfo::sCATEGORY), "Hardware");
    EXPECT_EQ(IOError("").GetData(AlertInfo::sCATEGORY), "I/O");
    EXPECT_EQ(OSError("").GetData(AlertInfo::sCATEGORY), "OperatingSystem");
    EXPECT_EQ(UnknownError("").GetData(AlertInfo::sCATEGORY), "Unknown");
    EXPECT_EQ(Error(AlertInfo::eERROR).GetData(AlertInfo::sCATEGORY), "Unknown");
    EXPECT_EQ(Error(AlertInfo::eERROR).GetData(Error::sINHERITANCE), TypeName(typeid(Error)));

    EXPECT_EQ(LogicError("").GetMessageA(), "No Message");
    OSError withMessage("disk gone");
    EXPECT_EQ(withMessage.GetMessageA(), "disk gone");
    EXPECT_EQ(withMessage.GetSeverity(), AlertInfo::eERROR);
    EXPECT_EQ(withMessage.GetData(Error::sINHERITANCE), Chain({&typeid(Error), &typeid(OSError)}));
}

TEST(AlertClasses, StandardClassesWordTheirMessages)
{
    EXPECT_EQ(AssertionFailure("x != 0").GetMessageA(), "x != 0");
    EXPECT_EQ(NullPointer("pData").GetMessageA(), "NULL pointer variable named pData");
    EXPECT_EQ(IndexOutOfBounds(12, "m_Items", 10).GetMessageA(),
              "Out of bounds index of 12 for m_Items with size of 10");
    EXPECT_EQ(StdException("bad_alloc").GetMessageA(), "Caught std::exception - bad_alloc");
    EXPECT_EQ(AllocationFailed("64 bytes").GetMessageA(), "Attempt to allocate 64 bytes failed");
    EXPECT_EQ(ErrorSlicedOnThrow("N::Derived").GetMessageA(),
              "N::Derived sliced to Qel::Core::Error in Error base class Throw() method");
    EXPECT_EQ(AllocationFailed("x").GetData(AlertInfo::sCATEGORY), "OperatingSystem");
    EXPECT_EQ(NullPointer("p").GetData(Error::sINHERITANCE),
              Chain({&typeid(Error), &typeid(LogicError), &typeid(NullPointer)}));
}

TEST(AlertClasses, InvalidParameterWithAndWithoutValue)
{
    InvalidParameter without("x");
    EXPECT_EQ(without.GetMessageA(), "Invalid Parameter: x = {Not Provided}");
    EXPECT_EQ(without.GetData(InvalidParameter::sNAME), "x");
    EXPECT_EQ(without.GetData(InvalidParameter::sVALUE), "{Not Provided}");
    EXPECT_EQ(without.GetData(AlertInfo::sCATEGORY), "Logic");

    InvalidParameter with("timeout", 2.5);
    EXPECT_EQ(with.GetMessageA(), "Invalid Parameter: timeout = 2.5");
    EXPECT_EQ(with.GetData(InvalidParameter::sVALUE), "2.5");
    EXPECT_EQ(with.GetData(Error::sINHERITANCE),
              Chain({&typeid(Error), &typeid(LogicError), &typeid(InvalidParameter)}));
    EXPECT_EQ(with.GetData(AlertInfo::sTYPE_NAME), TypeName(typeid(InvalidParameter)));
}

TEST(AlertClasses, DerivedClassFormatsItsOwnMessageAndChainsAllClasses)
{
    ChildError child("x");
    EXPECT_EQ(child.GetMessageA(), "child x");
    EXPECT_EQ(child.GetData(AlertInfo::sCATEGORY), "Hardware");
    EXPECT_EQ(child.GetData(Error::sINHERITANCE),
              Chain({&typeid(Error), &typeid(HardwareError), &typeid(ParentError), &typeid(ChildError)}));
}

TEST(AlertClasses, WhatCachesTheMessageOfItsFirstCall)
{
    BasicError error;
    EXPECT_STREQ(error.what(), "Basic Error");
    error.SetData(AlertInfo::sMESSAGE, "changed later");
    EXPECT_STREQ(error.what(), "Basic Error");
}

TEST(RaisedStatus, CopyMovesTheStatusAndPlainCopyHoldsNone)
{
    BasicError source;
    try {
        QEL_RAISE_ERROR(BasicError(), "Qel.Test");
    } catch (BasicError& flying) {
        ASSERT_TRUE(flying.GetRaisedStatus());
        BasicError moved(flying);
        EXPECT_TRUE(moved.GetRaisedStatus());
        EXPECT_FALSE(flying.GetRaisedStatus());

        Error plain(AlertInfo::eERROR);
        plain.Copy(moved, false);
        EXPECT_FALSE(plain.GetRaisedStatus());
        EXPECT_TRUE(moved.GetRaisedStatus());
        EXPECT_EQ(plain.GetMessageA(), "Basic Error");

        Error assigned(AlertInfo::eERROR);
        assigned = moved;
        EXPECT_TRUE(assigned.GetRaisedStatus());
        EXPECT_FALSE(moved.GetRaisedStatus());

        std::shared_ptr<Error> clone = assigned.Clone();
        EXPECT_TRUE(clone->GetRaisedStatus());
        EXPECT_FALSE(assigned.GetRaisedStatus());
    }
    EXPECT_EQ(ThreadSpecificErrorRecursionCount::Get(), 0);
}
