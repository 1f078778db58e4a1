// Versions made while memory is exhausted: the library's own version and
// Version::create give no version rather than one with a wrong text.
#include <gtest/gtest.h>

#include "knobs.h"
#include "utils/result.h"
#include "utils/version.h"
#include "zosys_faults.h"

using namespace Utils;

namespace {

// Out-of-memory errors raised meanwhile are recorded, not logged.
class VersionExhaustion : public ::testing::Test {
protected:
    void SetUp() override {
        setErrorSuppressed(kResultOutOfMemory);
        setErrorSuppressed(kResultBadArgument);
    }
    void TearDown() override {
        ZoIF_TestFaultDisarm();
        clearErrorSuppressed(kResultOutOfMemory);
        clearErrorSuppressed(kResultBadArgument);
        clearError();
    }
};

TEST_F(VersionExhaustion, TheVersionWithoutMemoryForItselfIsNoneAndTheNextCallMakesIt) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    VersionImpl::theVersion_.reset();  // as before the first call of a process
    ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 0);
    CountedRef<Version> none = Version::theVersion();
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    EXPECT_FALSE(none);
    EXPECT_FALSE(VersionImpl::theVersion_);
    CountedRef<Version> made = Version::theVersion();
    ASSERT_TRUE(made);
    EXPECT_STREQ(made->asString().text(), "1.1.1.1507");
    EXPECT_EQ(VersionImpl::theVersion_.get(), made.get());
    EXPECT_EQ(made->refCount(), 2u);  // the slot and this holder
}

TEST_F(VersionExhaustion, TheVersionWithoutMemoryForItsTextIsNoneAndTheSlotStaysEmpty) {
    VersionImpl::theVersion_.reset();
    ZoIF_TestFaultArm(ZOIF_FAULT_STRING, 1, 1);
    CountedRef<Version> none = Version::theVersion();
    ZoIF_TestFaultDisarm();
    EXPECT_GT(ZoIF_TestFaultHits(), 0u);
    EXPECT_FALSE(none);
    EXPECT_FALSE(VersionImpl::theVersion_);
    CountedRef<Version> made = Version::theVersion();
    ASSERT_TRUE(made);
    EXPECT_STREQ(made->asString().text(), "1.1.1.1507");
    EXPECT_EQ(made->major(), 1u);
}

TEST_F(VersionExhaustion, CreatedVersionWithoutMemoryForItsTextIsNone) {
    ZoIF_TestFaultArm(ZOIF_FAULT_STRING, 1, 1);
    CountedRef<Version> none = Version::create(3, 4, 5, 6);
    ZoIF_TestFaultDisarm();
    EXPECT_GT(ZoIF_TestFaultHits(), 0u);
    EXPECT_FALSE(none);
    CountedRef<Version> made = Version::create(3, 4, 5, 6);
    ASSERT_TRUE(made);
    EXPECT_STREQ(made->asString().text(), "3.4.5.6");
}

}  // namespace
