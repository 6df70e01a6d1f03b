// Real server processes for the tests: each with a folder, a configuration file and a port of its own.
//
// A server is the host program of this folder (plain_host), or rdxhttpd, with the shipped library in it.
// What a test starts ends with the test, also when the test crashes.
//
//     Server server({.settings = {"Verbosity=VERBOSITY_ALL"}, .threads = 8});
//     ASSERT_TRUE(server.Start());
//     Client client(server.Port());
//
// Environment:
//     RDX_TEST_TIME_SCALE  see tests/support/eventually.h
//     RDX_TEST_SERVER      port of a server that runs already, for the tests that need no settings of
//                          their own; it must allow GET and POST and serve with several threads
#ifndef RDX_TESTS_SYSTEM_HARNESS_H
#define RDX_TESTS_SYSTEM_HARNESS_H

#include "tests/support/eventually.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace rdx::test {

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);

// A folder that is removed with all it holds.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// TCP ports in a row that no other test uses while the reservation lives.
class PortReservation {
public:
    explicit PortReservation(int count = 1);
    ~PortReservation();
    PortReservation(const PortReservation&) = delete;
    PortReservation& operator=(const PortReservation&) = delete;

    // The first of them.
    int Port() const { return port_; }

private:
    bool Take(int first, int count);
    bool Take(int port);
    void GiveBack();

    int port_ = 0;
    std::vector<int> locks_;
};

// How a process ended.
struct Ending {
    int result = 0; // the exit status as a signed byte, which is what rdxhttp_main returned
    int signal = 0; // the signal that ended the process, 0 for an exit
};

// plain_host loads the library, linked_host is linked with it.
enum class Host { kPlain, kLinked, kRdxhttpd };

struct ServerOptions {
    std::vector<std::string> settings = {}; // lines of section HTTP beside ServicePort and MethodsAllowed
    int threads = 1;                        // "-mt"
    std::vector<std::pair<std::string, std::string>> environment = {};
    std::vector<std::string> wrapper = {}; // a program and its arguments that run the host
    std::string shadow = {};               // a shadow database that only this server has
    bool preloaded = false;                // it is read by librdxusers.so even where it could be /etc/shadow
    std::string machineName = {};          // the name of the machine as only this server sees it
    bool ownNetwork = false;               // a network of its own with only a loopback
    int heldDescriptors = 0;               // descriptors that the host holds before it starts the server
    Host host = Host::kPlain;
    int ports = 1; // ports in a row that are this server's; it listens on the first
};

class Server {
public:
    explicit Server(ServerOptions options = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Starts the process, with `more` behind its arguments, and waits until it listens.
    testing::AssertionResult Start(const std::vector<std::string>& more = {});

    // Starts the process with exactly these arguments, and waits for nothing.
    void Spawn(const std::vector<std::string>& arguments);

    // The same, and waits for its end.
    std::optional<Ending> Run(const std::vector<std::string>& arguments);

    // Writes the configuration file with `port` (0: the server's own) and the given settings.
    void WriteSettings(const std::vector<std::string>& settings, int port = 0);

    // Signals the process, the one that serves, or all of its group as a terminal does. Fails the test where
    // there is no such process: numbers of 0 and below stand for many processes, -1 for all of the machine.
    void Signal(int number) const;
    void SignalServing(int number) const;
    void SignalGroup(int number) const;

    // How the process ended; nothing when it still runs after the limit.
    std::optional<Ending> WaitForEnd(milliseconds limit = kPatience);

    // Waits until the service loop was entered `count` times.
    bool WaitForLoop(int count);

    // Waits until `count` threads serve; 0 under a sanitizer only after a call was served.
    bool WaitForServingThreads(int count) const;

    // Waits until the process holds `count` descriptors.
    bool WaitForDescriptors(int count) const;
    int Descriptors() const;

    // Waits until the last connection that a call closed is gone, and counts.
    int DescriptorsWhenClosed() const;

    int Port() const { return port_.Port(); }
    pid_t Pid() const { return pid_; }

    // The process that serves: rdxhttpd's child, any other host itself.
    pid_t ServingPid() const;

    const std::string& Folder() const { return folder_.Path(); }
    std::string ConfigurationPath() const { return folder_.Path() + "/tnd.ini"; }

    // What the process printed so far.
    std::string Output() const;
    std::string Errors() const;
    bool WaitForOutput(const std::string& part, milliseconds limit = kPatience) const;

private:
    std::string ShadowPath() const { return folder_.Path() + "/shadow"; }
    std::vector<std::string> CommandLine(const std::vector<std::string>& arguments) const;
    std::vector<std::string> StandardArguments() const;
    void WaitForPasses() const;
    void End();

    ServerOptions options_;
    TemporaryFolder folder_;
    PortReservation port_;
    pid_t pid_ = -1;
    std::optional<Ending> ending_;
};

// The port of RDX_TEST_SERVER, or 0.
int RunningServerPort();

// Whether this system lets a test give a process its own /etc/shadow, its own machine's name, its own
// network.
bool CanReplaceShadow();
bool CanHaveOwnName();
bool CanHaveOwnNetwork();

int CountOf(const std::string& part, const std::string& text);

} // namespace rdx::test

#endif
