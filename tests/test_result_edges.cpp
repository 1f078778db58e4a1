// Results at their edges: the tables' verifier against a damaged chain of text
// buffers, and registrations made while memory is exhausted.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "foundation/result_tables.h"
#include "knobs.h"
#include "utils/result.h"
#include "zosys_faults.h"

using namespace Utils;

namespace {

// The head of a thread's text buffer (result.cpp): the link to the next buffer,
// then the 40 characters a generated text is written to.
struct TextBufferHead {
    TextBufferHead* next;
    char text[40];
};

TEST(ResultTablesVerifier, TextBuffersThatFormACycleAreReported) {
    ASSERT_EQ(detail::verifyResultTables(), nullptr);
    // An unregistered code's text is written in this thread's own buffer.
    char const* text = resultToString(0x80007A01u);
    ASSERT_STREQ(text, "Failure #0x80007a01");
    auto* buffer = reinterpret_cast<TextBufferHead*>(const_cast<char*>(text) - offsetof(TextBufferHead, text));
    TextBufferHead* next = buffer->next;
    buffer->next = buffer;
    EXPECT_STREQ(detail::verifyResultTables(), "result tables: the text buffers form a cycle");
    buffer->next = next;
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
    EXPECT_STREQ(resultToString(0x80007A02u), "Failure #0x80007a02");
    EXPECT_EQ(resultToString(0x80007A02u), text) << "the same buffer, reused";
}

// A listener that counts the codes it was handed.
struct Recorder : ResultListener {
    void resultRaised(unsigned int code) const override {
        if (code == watched) ++calls;
    }
    unsigned int watched = 0;
    mutable int calls = 0;
};

// Out-of-memory errors raised meanwhile are recorded, not logged.
class ResultExhaustion : public ::testing::Test {
protected:
    void SetUp() override {
        if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
        setErrorSuppressed(kResultOutOfMemory);
    }
    void TearDown() override {
        ZoIF_TestFaultDisarm();
        clearErrorSuppressed(kResultOutOfMemory);
        EXPECT_EQ(detail::verifyResultTables(), nullptr);
    }
};

// Run alone (as ctest runs each test), the text table is made by the first
// registration of the process: that allocation is the one that fails.
TEST_F(ResultExhaustion, TextRegisteredWithoutMemoryIsNotShownAndItsRemovalIsHarmless) {
    static char const kText[] = "registered under exhaustion";
    {
        ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 0);
        ResultString lost(0x80007B01u, kText);
        ZoIF_TestFaultDisarm();
        EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
        EXPECT_STREQ(resultToString(0x80007B01u), "Failure #0x80007b01");
    }
    EXPECT_STREQ(resultToString(0x80007B01u), "Failure #0x80007b01");
    {
        ResultString kept(0x80007B01u, kText);
        EXPECT_STREQ(resultToString(0x80007B01u), kText);
    }
    EXPECT_STREQ(resultToString(0x80007B01u), "Failure #0x80007b01");
}

// Likewise the listener list is made by the first listener added.
TEST_F(ResultExhaustion, ListenerAddedWithoutMemoryIsNeverCalled) {
    Recorder listener;
    listener.watched = 0x80007C01u;
    ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 0);
    addResultListener(&listener);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
    testing::internal::CaptureStderr();  // each raise is logged on the process hub's default sink
    EXPECT_EQ(raiseError(0x80007C01u), 0x80007C01u);
    EXPECT_EQ(listener.calls, 0);
    addResultListener(&listener);
    EXPECT_EQ(raiseError(0x80007C01u), 0x80007C01u);
    EXPECT_EQ(listener.calls, 1);
    removeResultListener(&listener);
    EXPECT_EQ(raiseError(0x80007C01u), 0x80007C01u);
    EXPECT_EQ(listener.calls, 1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(lastError(), 0x80007C01u);
    clearError();
}

}  // namespace
