#include "common/memory.h"
#include "rDxsd/rDxsd.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/wddx.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <string>

namespace rdx {
namespace {

TEST(ServerStartTime, IsNotKnownWhenTheLibraryIsLoaded) { EXPECT_EQ(server_start_time, 0U); }

// A call with its records; the handler's trace is captured.
class VersionCall : public testing::Test {
protected:
    ~VersionCall() override { FreeTnResponse(&result_); }

    int ProcessText(char* args) {
        TavrinRequest call{};
        call.pszWddxArgs = args;
        FreeTnResponse(&result_);
        result_ = {0, 1, -99, nullptr};
        const test::CaptureStdout capture;
        const int code = ProcessGetVersion(&call, &result_);
        printed_ = capture.Text();
        return code;
    }

    int Process(const std::string& args) { return ProcessText(CopyText(args).get()); }

    // A call with one argument.
    int ProcessVersion(const std::string& value) {
        return Process(test::Packet("<struct><var name='version'>" + value + "</var></struct>"));
    }

    void ExpectRefused() {
        EXPECT_EQ(result_.iStatus, -99);
        EXPECT_EQ(result_.ucFlag, 1);
        EXPECT_EQ(result_.pszWddxResult, nullptr);
    }

    TavrinResponse result_{};
    std::string printed_;
};

TEST_F(VersionCall, AnswersWithTheFixedPacket) {
    const std::string four(4, ' ');
    const std::string eight(8, ' ');
    const std::string expected =
        "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
        "<wddxPacket version='1.0'><header><comment>rDxGetVersion</comment></header><data>" +
        four + "<struct>" + eight + "<var name='status'>" + std::string(3, '\t') + "<struct>" +
        std::string(4, '\t') + "<var name='code'><number>0</number></var>" + std::string(3, '\t') +
        "</struct></var>" + eight + "<var name='version'><number>100</number></var>" + four +
        "</struct></data></wddxPacket>";
    EXPECT_EQ(ProcessVersion("<number>7</number>"), 0);
    EXPECT_EQ(result_.pszWddxResult, expected);
    EXPECT_EQ(result_.iStatus, 0);
    EXPECT_EQ(result_.ucFlag, 0);
    EXPECT_EQ(printed_, "\nProcessGetVersion");
}

TEST_F(VersionCall, AnswersInABufferOfItsFixedSize) {
    EXPECT_EQ(ProcessVersion("<number>7</number>"), 0);
    EXPECT_GE(malloc_usable_size(result_.pszWddxResult), 4477U);
}

TEST_F(VersionCall, AnswersEveryVersionAlike) {
    ASSERT_EQ(ProcessVersion("<number>7</number>"), 0);
    const std::string expected = result_.pszWddxResult;
    for (const char* value : {"<number>0</number>", "<number>-1</number>", "<boolean value='true'/>",
                              "<boolean value='false'/>"}) {
        EXPECT_EQ(ProcessVersion(value), 0) << value;
        EXPECT_EQ(result_.pszWddxResult, expected) << value;
    }
}

TEST_F(VersionCall, NeedsAVersion) {
    for (const char* value : {"<string>7</string>", "<number>1.5</number>", "<null/>",
                              "<array length='1'><number>7</number></array>"}) {
        EXPECT_EQ(ProcessVersion(value), 400) << value;
        ExpectRefused();
    }
    EXPECT_EQ(Process(test::Packet("<struct><var name='Version'><number>7</number></var></struct>")), 400);
    ExpectRefused();
    EXPECT_EQ(printed_, "\nProcessGetVersion");
}

TEST_F(VersionCall, NeedsArguments) {
    for (const std::string& args : {std::string("<wddxPacket"), std::string("hello"), test::Packet("<null/>"),
                                    test::Packet("<array length='1'><null/></array>")}) {
        EXPECT_EQ(Process(args), 400) << args;
        ExpectRefused();
    }
    EXPECT_EQ(ProcessText(nullptr), 400);
    ExpectRefused();
}

TEST_F(VersionCall, FailsWhenMemoryIsShort) {
    OwnedText args = CopyText(test::Packet("<struct><var name='version'><number>7</number></var></struct>"));
    bool unassigned = false;
    test::FailEveryAllocation([&] {
        const int code = ProcessText(args.get());
        EXPECT_TRUE(code == 0 || code == 400 || code == -6) << code;
        EXPECT_EQ(result_.pszWddxResult != nullptr, code == 0);
        unassigned = unassigned || code == -6;
        return code == 0;
    });
    EXPECT_TRUE(unassigned);
}

} // namespace
} // namespace rdx
