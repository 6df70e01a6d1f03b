#include "common/portability_sockets.h"

#include "common/config.h"
#include "common/log.h"
#include "common/shared.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/sockets.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace rdx {
namespace {

using namespace std::chrono_literals;
using namespace test;

constexpr const char* kSource = "common/portability_sockets.cpp";

using RecvSocketTest = SocketTest;

TEST_F(RecvSocketTest, FillsTheBufferAndTakesNoMore) {
    const Connection connection;
    connection.Say("abcdefgh");
    const Received received(connection, 5);
    EXPECT_EQ(received.result, 5);
    EXPECT_EQ(received.text, "abcde");
    EXPECT_EQ(received.calls, 1);
    EXPECT_EQ(connection.Rest(), "fgh");
}

TEST_F(RecvSocketTest, ReceivesNothingIntoNoBuffer) {
    const Connection connection;
    connection.Say("a");
    const Received received(connection, 0);
    EXPECT_EQ(received.result, 0);
    EXPECT_EQ(received.calls, 0);
    EXPECT_EQ(RecvSocket(connection.near.Get(), nullptr, -1, 0), 0);
}

TEST_F(RecvSocketTest, WaitsForTheRest) {
    const Connection connection;
    std::thread peer([&] {
        for (const char c : std::string_view("abc\0\xff", 5)) connection.SayNext({&c, 1});
    });
    const Received received(connection, 5);
    peer.join();
    EXPECT_EQ(received.text, std::string("abc\0\xff", 5));
}

TEST_F(RecvSocketTest, ReturnsWhatCameBeforeThePeerClosed) {
    Connection connection;
    connection.Say("abc", true);
    EXPECT_EQ(Received(connection, 10).text, "abc");
    EXPECT_EQ(Received(connection, 10).result, 0);
    EXPECT_EQ(Received(connection, 10, 1).result, 0);
}

TEST_F(RecvSocketTest, FailsWhenNothingWasReceived) {
    char c;
    EXPECT_EQ(RecvSocket(-1, &c, 1, 0), -1);
    Connection connection;
    connection.ResetFar();
    EXPECT_EQ(Received(connection, 10).result, -1);
}

TEST_F(RecvSocketTest, ReturnsWhatCameBeforeAFailure) {
    const Connection connection;
    connection.Say("abc");
    const FailCall fault("recv", 2, ECONNRESET);
    EXPECT_EQ(Received(connection, 10).text, "abc");
    EXPECT_TRUE(fault.Struck());
}

TEST_F(RecvSocketTest, TriesNothingAgainInBlockingMode) {
    const Connection connection;
    connection.Say("abc");
    for (const int error : {EAGAIN, EINTR}) {
        const FailCall fault("recv", 1, error);
        const Received received(connection, 3);
        EXPECT_EQ(received.result, -1);
        EXPECT_EQ(received.calls, 1);
    }
}

// Sends the pieces, each when the one before has been received, then closes. The result of receiving up to
// 100 bytes, as the text received and the number of receives it took: one more than pieces when the end of
// the entity was not seen in them.
std::string ReceivePieces(const std::vector<std::string_view>& pieces) {
    const Connection connection = Connection::Local();
    std::atomic<bool> done = false;
    std::thread peer([&] {
        for (const std::string_view piece : pieces) {
            EXPECT_TRUE(Eventually([&] { return connection.Waiting() == 0 || done; }));
            if (done) return;
            send(connection.far.Get(), piece.data(), piece.size(), MSG_NOSIGNAL);
        }
        EXPECT_TRUE(Eventually([&] { return connection.Waiting() == 0 || done; }));
        shutdown(connection.far.Get(), SHUT_WR);
    });
    const Received received(connection, 100);
    done = true;
    peer.join();
    return received.text + "/" + std::to_string(received.calls);
}

TEST_F(RecvSocketTest, ReturnsAtTheEndOfTheEntity) {
    SetMarker("END");
    EXPECT_EQ(ReceivePieces({"bodyEND"}), "bodyEND/1");
    EXPECT_EQ(ReceivePieces({"bodyEND\r\n"}), "bodyEND\r\n/1");
    EXPECT_EQ(ReceivePieces({"END"}), "END/1");
    EXPECT_EQ(ReceivePieces({"END\r\n"}), "END\r\n/1");
    EXPECT_EQ(ReceivePieces({"ENDEND"}), "ENDEND/1");
}

TEST_F(RecvSocketTest, SeesTheEndOfTheEntityAcrossPieces) {
    SetMarker("END");
    EXPECT_EQ(ReceivePieces({"body", "END"}), "bodyEND/2");
    EXPECT_EQ(ReceivePieces({"bodyEN", "D"}), "bodyEND/2");
    EXPECT_EQ(ReceivePieces({"E", "N", "D"}), "END/3");
    EXPECT_EQ(ReceivePieces({"bodyEN", "D\r\n"}), "bodyEND\r\n/2");
    EXPECT_EQ(ReceivePieces({"bodyEND\r", "\n"}), "bodyEND\r\n/2");
}

TEST_F(RecvSocketTest, LeavesWhatComesBehindTheEndOfTheEntity) {
    SetMarker("END");
    const Connection connection;
    connection.Say("bodyEND");
    EXPECT_EQ(Received(connection, 100).text, "bodyEND");
    connection.Say("\r\nnext");
    EXPECT_EQ(connection.Rest(), "\r\nnext");
}

TEST_F(RecvSocketTest, TakesNothingElseForTheEndOfTheEntity) {
    SetMarker("END");
    for (const std::string_view bytes : {"E", "EN", "ND", "bodyENDx", "END ", "bodyEND\n", "bodyEND\r",
                                         "END\r\n\r\n", "end", "\r\n", "\n", "EN\r\n", "xEN\r\nD"}) {
        EXPECT_EQ(ReceivePieces({bytes}), std::string(bytes) + "/2");
    }
}

TEST_F(RecvSocketTest, KnowsTheLongestMarker) {
    const std::string marker(CONFIG_TERMINATOR_SIZE - 1, 'm');
    SetMarker(marker.c_str());
    EXPECT_EQ(ReceivePieces({marker}), marker + "/1");
    EXPECT_EQ(ReceivePieces({std::string_view(marker).substr(1), "m"}), marker + "/2");
}

TEST_F(RecvSocketTest, LooksForNoMarkerUnlessItIsSwitchedOn) {
    StoreSharedText(szEntityTerminator, "END");
    EXPECT_EQ(ReceivePieces({"bodyEND"}), "bodyEND/2");
}

TEST_F(RecvSocketTest, StopsAtAFullBufferWithAMarkerToo) {
    SetMarker("END");
    const Connection connection;
    connection.Say("bodyEND");
    EXPECT_EQ(Received(connection, 6).text, "bodyEN");
}

TEST_F(RecvSocketTest, AssertsAMarkerWhenOneIsSwitchedOn) {
    const auto receive = [] {
        const Connection connection;
        connection.Say("body");
        SetMarker("");
        Received(connection, 100);
    };
    EXPECT_DEATH(receive(), Assertion(kSource, "RecvSocket", "slen > 0"));
}

TEST_F(RecvSocketTest, NeedsNoMarkerWhenNothingIsReceived) {
    Connection connection;
    connection.CloseFar();
    SetMarker("");
    EXPECT_EQ(Received(connection, 100).result, 0);
}

TEST_F(RecvSocketTest, MakesTheSocketNonBlockingForGood) {
    const Connection connection;
    connection.Say("a");
    const int before = fcntl(connection.near.Get(), F_GETFL);
    EXPECT_EQ(Received(connection, 1, 1).text, "a");
    EXPECT_EQ(fcntl(connection.near.Get(), F_GETFL), before | 0xc00);
    static_assert((O_NONBLOCK | O_APPEND) == 0xc00);
    const Received later(connection, 1);
    EXPECT_EQ(later.result, -1) << "it does not wait any more";
    EXPECT_EQ(later.calls, 1);
}

TEST_F(RecvSocketTest, LeavesTheFlagsInBlockingMode) {
    const Connection connection;
    connection.Say("a");
    const int before = fcntl(connection.near.Get(), F_GETFL);
    Received(connection, 1);
    EXPECT_EQ(fcntl(connection.near.Get(), F_GETFL), before);
}

TEST_F(RecvSocketTest, FailsWhenTheSocketCannotBeMadeNonBlocking) {
    char c;
    EXPECT_EQ(RecvSocket(-1, &c, 1, 1), -1);
    for (const int nth : {1, 2}) {
        const Connection connection;
        connection.Say("a");
        const FailCall fault("fcntl", nth, EPERM);
        const Received received(connection, 1, 1);
        EXPECT_TRUE(fault.Struck());
        EXPECT_EQ(received.result, -1);
        EXPECT_EQ(received.calls, 0);
    }
}

TEST_F(RecvSocketTest, TriesAQuietConnectionThreeTimesAgain) {
    const Connection connection;
    const auto start = std::chrono::steady_clock::now();
    const Received received(connection, 10, 1);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(received.result, -1);
    EXPECT_EQ(received.calls, 4);
    EXPECT_GE(elapsed, 6ms);
    EXPECT_LT(elapsed, 6s) << "pauses of seconds";
}

TEST_F(RecvSocketTest, ReturnsWhatCameWhenTheTriesAreUsedUp) {
    const Connection connection;
    connection.Say("ab");
    const Received received(connection, 10, 1);
    EXPECT_EQ(received.text, "ab");
    EXPECT_EQ(received.calls, 5);
}

TEST_F(RecvSocketTest, ReceivesWhatArrivesWhileItTriesAgain) {
    const Connection connection;
    connection.Say("abc");
    const FailCall notYet("recv", 1, EAGAIN);
    const Received received(connection, 3, 1);
    EXPECT_TRUE(notYet.Struck());
    EXPECT_EQ(received.text, "abc");
    EXPECT_EQ(received.calls, 2);
}

TEST_F(RecvSocketTest, CountsTheTriesOfTheWholeCall) {
    const Connection connection;
    connection.Say("abc");
    const FailCall notYet("recv", 1, EAGAIN);
    const Received received(connection, 10, 1);
    EXPECT_EQ(received.text, "abc");
    EXPECT_EQ(received.calls, 5) << "the first try and the three at the end are four";
}

TEST_F(RecvSocketTest, LooksForNoMarkerInNonBlockingMode) {
    SetMarker("END");
    const Connection connection;
    connection.Say("bodyEND");
    const Received received(connection, 100, 1);
    EXPECT_EQ(received.text, "bodyEND");
    EXPECT_EQ(received.calls, 5);
}

TEST_F(RecvSocketTest, TriesNoOtherFailureAgain) {
    const Connection connection;
    connection.Say("abc");
    const FailCall fault("recv", 1, ECONNRESET);
    const Received received(connection, 3, 1);
    EXPECT_EQ(received.result, -1);
    EXPECT_EQ(received.calls, 1);
}

using ReadLineTest = SocketTest;

TEST_F(ReadLineTest, ReadsALineAndItsEnd) {
    const Connection connection;
    connection.Say("abc\r\n");
    const Line line(connection);
    EXPECT_EQ(line.result, 3);
    EXPECT_EQ(line.text, "abc");
    EXPECT_EQ(line.end, "\r\n");
    EXPECT_TRUE(line.terminated);
}

TEST_F(ReadLineTest, AcceptsABareLineFeed) {
    const Connection connection;
    connection.Say("abc\n");
    const Line line(connection);
    EXPECT_EQ(line.text, "abc");
    EXPECT_EQ(line.end, "\n");
}

TEST_F(ReadLineTest, ReadsAnEmptyLine) {
    const Connection connection;
    connection.Say("\r\n\n");
    const Line first(connection), second(connection);
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(first.end, "\r\n");
    EXPECT_EQ(second.result, 0);
    EXPECT_EQ(second.end, "\n");
    EXPECT_TRUE(second.terminated);
}

TEST_F(ReadLineTest, LeavesEverythingBehindTheLineInTheSocket) {
    const Connection connection;
    connection.Say("first\r\nsecond\nthird");
    EXPECT_EQ(Line(connection).text, "first");
    EXPECT_EQ(Line(connection).text, "second");
    EXPECT_EQ(connection.Rest(), "third");
}

TEST_F(ReadLineTest, TakesFewCallsForALine) {
    const Connection connection;
    connection.Say("GET /rDx HTTP/1.1\r\nHost: device\r\n");
    EXPECT_LE(Line(connection).calls, 2);
    EXPECT_LE(Line(connection).calls, 2);
    const std::string text(1000, 'x');
    connection.Say(text + "\r\n");
    const Line line(connection, 1024);
    EXPECT_EQ(line.text, text);
    EXPECT_LE(line.calls, 6);
}

TEST_F(ReadLineTest, BeginsTheLineEndAfreshInEachCall) {
    const Connection connection;
    connection.Say("a\r\nb\r\nc\n");
    char text[10], end[SOCKET_LINE_END_SIZE] = "";
    for (const char* expected : {"a", "b"}) {
        EXPECT_EQ(ReadLineFromSocket(connection.near.Get(), text, sizeof text, end), 1);
        EXPECT_STREQ(text, expected);
        EXPECT_STREQ(end, "\r\n");
    }
    EXPECT_EQ(ReadLineFromSocket(connection.near.Get(), text, sizeof text, end), 1);
    EXPECT_STREQ(end, "\n");
}

TEST_F(ReadLineTest, FitsALineOfOneByteLessThanTheBuffer) {
    const Connection connection;
    connection.Say("abc\r\nabc\n\n");
    EXPECT_EQ(Line(connection, 4).text, "abc");
    EXPECT_EQ(Line(connection, 4).text, "abc");
    EXPECT_EQ(Line(connection, 1).result, 0);
}

TEST_F(ReadLineTest, RefusesALineThatDoesNotFit) {
    const Connection connection;
    connection.Say("abcd\r\nx");
    EXPECT_EQ(Line(connection, 4).result, -3);
    EXPECT_EQ(connection.Rest(), "\r\nx") << "read up to the byte that did not fit";
    connection.Say("x\n");
    EXPECT_EQ(Line(connection, 1).result, -3);
}

TEST_F(ReadLineTest, RefusesASecondCr) {
    const Connection connection;
    connection.Say("a\r\r\nb");
    EXPECT_EQ(Line(connection).result, -2);
    EXPECT_EQ(connection.Rest(), "\nb");
    connection.Say("a\rb\r\n");
    EXPECT_EQ(Line(connection).result, -2);
    EXPECT_EQ(connection.Rest(), "\n");
}

TEST_F(ReadLineTest, LeavesACrInsideOutOfTheLine) {
    const Connection connection;
    connection.Say("a\rb\n");
    const Line line(connection);
    EXPECT_EQ(line.text, "ab");
    EXPECT_EQ(line.end, "\r\n");
}

TEST_F(ReadLineTest, KeepsNulAndHighBytes) {
    const Connection connection;
    connection.Say(std::string_view("a\0b\xff\x80\0\r\n", 8));
    const Line line(connection);
    EXPECT_EQ(line.text, std::string("a\0b\xff\x80\0", 6));
}

TEST_F(ReadLineTest, IsTheSameWhenTheBytesComeOneAtATime) {
    const Connection connection;
    const std::string_view bytes("ab\0c\r\n", 6);
    std::thread peer([&] {
        for (const char& c : bytes) connection.SayNext({&c, 1});
    });
    const Line line(connection);
    peer.join();
    EXPECT_EQ(line.text, std::string("ab\0c", 4));
    EXPECT_EQ(line.end, "\r\n");
}

TEST_F(ReadLineTest, EndsTheLineWhereThePeerCloses) {
    Connection connection;
    connection.Say("abc\r", true);
    const Line line(connection);
    EXPECT_EQ(line.text, "abc");
    EXPECT_TRUE(line.terminated);
    EXPECT_EQ(line.end, "\r");
    const Line nothing(connection);
    EXPECT_EQ(nothing.result, 0);
    EXPECT_TRUE(nothing.terminated);
    EXPECT_EQ(nothing.end, "");
}

TEST_F(ReadLineTest, FailsWhenReceivingDoesAndReportsIt) {
    const Failure failure;
    char text[10], end[SOCKET_LINE_END_SIZE];
    failure.Expect(ReadLineFromSocket(-1, text, sizeof text, end), -1,
                   {"ReadLineFromSocket(): recv failed after 0 bytes"});

    Connection reset;
    reset.ResetFar();
    EXPECT_EQ(Line(reset).result, -1);
}

TEST_F(ReadLineTest, FailsWhenAnyReceiveDoes) {
    for (const int nth : {1, 2, 3}) {
        const Connection connection;
        connection.Say("abc");
        const FailCall fault("recv", nth, ECONNRESET);
        EXPECT_EQ(Line(connection).result, -1) << nth;
        EXPECT_TRUE(fault.Struck()) << nth;
    }
}

TEST_F(ReadLineTest, AssertsItsBuffers) {
    char text[4], end[SOCKET_LINE_END_SIZE];
    EXPECT_DEATH(ReadLineFromSocket(-1, text, 0, end),
                 Assertion(kSource, "ReadLineFromSocket", "uiBufsize > 0"));
    EXPECT_DEATH(ReadLineFromSocket(-1, nullptr, 4, end),
                 Assertion(kSource, "ReadLineFromSocket", "szBuf != __null"));
    EXPECT_DEATH(ReadLineFromSocket(-1, text, 4, nullptr),
                 Assertion(kSource, "ReadLineFromSocket", "szCrLf != __null"));
}

using SendSocketTest = SocketTest;

TEST_F(SendSocketTest, SendsEverything) {
    const Connection connection;
    EXPECT_EQ(SendSocket(connection.near.Get(), "a\0b", 3), 3);
    char received[4];
    ASSERT_EQ(recv(connection.far.Get(), received, sizeof received, 0), 3);
    EXPECT_EQ(std::memcmp(received, "a\0b", 3), 0);
    EXPECT_EQ(SendSocket(connection.near.Get(), "", 0), 0);
}

TEST_F(SendSocketTest, SendsNothingOfANegativeLength) {
    const Connection connection;
    EXPECT_EQ(SendSocket(connection.near.Get(), "abc", -1), -3);
    char received[4];
    EXPECT_EQ(recv(connection.far.Get(), received, sizeof received, MSG_DONTWAIT), -1);
}

TEST_F(SendSocketTest, WaitsForAPeerThatReadsSlowly) {
    Connection connection(4096);
    const std::vector<char> bytes(1'000'000, 'x');
    std::size_t received = 0;
    std::thread peer([&] { received = Drain(connection.far); });
    EXPECT_EQ(SendSocket(connection.near.Get(), bytes.data(), 1'000'000), 1'000'000);
    shutdown(connection.near.Get(), SHUT_WR);
    peer.join();
    EXPECT_EQ(received, bytes.size());
}

TEST_F(SendSocketTest, FailsWhenThePeerHasClosed) {
    Connection connection;
    connection.ResetFar();
    EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
    EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
    EXPECT_EQ(SendSocket(-1, "abc", 3), -2);
}

TEST_F(SendSocketTest, TellsAShortSendApartAndTriesTheRestNotAgain) {
    const Connection connection;
    ASSERT_EQ(fcntl(connection.near.Get(), F_SETFL, O_NONBLOCK), 0);
    const std::vector<char> bytes(64 << 20, 'x'); // more than any buffer holds
    const int sends = CallsOf("send");
    const Failure failure(VERBOSITY_ERROR);
    failure.Expect(SendSocket(connection.near.Get(), bytes.data(), static_cast<int>(bytes.size())), -3,
                   {"SendSocket(): send() failed"});
    EXPECT_EQ(CallsOf("send"), sends + 1);
}

TEST_F(SendSocketTest, FailsWhenNothingCanBeSent) {
    const Connection connection(4096);
    Fill(connection.near);
    ASSERT_EQ(fcntl(connection.near.Get(), F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(SendSocket(connection.near.Get(), "abc", 3), -2);
}

TEST_F(SendSocketTest, ReportsAboveVerbosity1) {
    for (const int verbosity : {VERBOSITY_NONE, VERBOSITY_FATAL}) {
        const Failure failure(verbosity);
        const FailCall noMemory("malloc");
        failure.Expect(SendSocket(-1, "abc", 3), -2, {});
        EXPECT_FALSE(noMemory.Struck()) << "without a report there is no preview";
    }
    for (const int verbosity : {VERBOSITY_ERROR, VERBOSITY_ALL}) {
        const Failure failure(verbosity);
        failure.Expect(SendSocket(-1, "abc", 3), -2, {"SendSocket(): send() failed"});
    }
}

TEST_F(SendSocketTest, FailsWithoutMemoryForThePreview) {
    StoreShared<unsigned char>(ucVerbosity, VERBOSITY_ERROR);
    const FailCall noMemory("malloc");
    EXPECT_EQ(SendSocket(-1, "abc", 3), -1);
    EXPECT_TRUE(noMemory.Struck());
}

TEST_F(SendSocketTest, PreviewsNoMoreThanItWasGiven) {
    StoreShared<unsigned char>(ucVerbosity, VERBOSITY_ALL);
    for (int length = 1; length < 40; ++length) {
        const GuardedBytes bytes(std::string(static_cast<std::size_t>(length), 'x'));
        EXPECT_EQ(SendSocket(-1, bytes.begin(), length), -2);
    }
    const FailCall fault("send", 1, EPIPE);
    const GuardedBytes nothing("");
    EXPECT_EQ(SendSocket(-1, nothing.begin(), 0), -2);
}

using WriteSocketTest = SocketTest;

TEST_F(WriteSocketTest, WritesOnce) {
    const Connection connection;
    EXPECT_EQ(WriteSocket(connection.near.Get(), "a\0b", 3), 3);
    char received[4];
    ASSERT_EQ(recv(connection.far.Get(), received, sizeof received, 0), 3);
    EXPECT_EQ(std::memcmp(received, "a\0b", 3), 0);
}

TEST_F(WriteSocketTest, ReturnsAShortCountWithoutAReport) {
    const Connection connection;
    ASSERT_EQ(fcntl(connection.near.Get(), F_SETFL, O_NONBLOCK), 0);
    const std::vector<char> bytes(64 << 20, 'x');
    TakeReports();
    const int written =
        WriteSocket(connection.near.Get(), bytes.data(), static_cast<unsigned int>(bytes.size()));
    EXPECT_GT(written, 0);
    EXPECT_LT(written, 64 << 20);
    EXPECT_EQ(TakeReports(), std::vector<std::string>());
}

TEST_F(WriteSocketTest, ReportsAFailureAndNothingWritten) {
    Connection connection;
    const Failure failure;
    failure.Expect(WriteSocket(-1, "abc", 3), -1, {"WriteSocket(): failed writing to socket"});
    failure.Expect(WriteSocket(connection.near.Get(), "", 0), 0, {"WriteSocket(): failed writing all bytes"});
    connection.ResetFar();
    EXPECT_EQ(WriteSocket(connection.near.Get(), "abc", 3), -1);
}

} // namespace
} // namespace rdx
