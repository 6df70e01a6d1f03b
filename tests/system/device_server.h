// A server whose device answers what a scenario says, called by a user whom its shadow database knows; and
// the expected answers and good argument packets of golden/.
#ifndef RDX_TESTS_SYSTEM_DEVICE_SERVER_H
#define RDX_TESTS_SYSTEM_DEVICE_SERVER_H

#include "tests/system/harness.h"

#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace rdx::test {

inline constexpr const char* kUser = "tester";
inline constexpr const char* kPassword = "secret";

class DeviceServer {
public:
    explicit DeviceServer(ServerOptions options = {});

    testing::AssertionResult Start() { return server_.Start(); }
    int Port() const { return server_.Port(); }
    Server& Process() { return server_; }

    // From the next call on the device does what this scenario says.
    void Play(std::string_view scenario) const;

    // What was called since the last time: a line for each call of the device, without its line end.
    std::vector<std::string> TakeCalls();

private:
    ServerOptions With(ServerOptions options) const;

    TemporaryFolder folder_;
    std::string scenario_ = folder_.Path() + "/scenario.ini";
    std::string calls_ = folder_.Path() + "/calls";
    std::streamoff seen_ = 0;
    Server server_;
};

// The header that carries the user's name and password.
std::string Authorization();

// A POST of a method with its packet as the user, and the same as a form.
std::string UserCall(const std::string& method, const std::string& packet);
std::string UserForm(const std::string& method, const std::string& packet);

// golden/METHOD/NAME.xml.
std::string GoldenPath(const std::string& method, const std::string& name);
std::string Golden(const std::string& method, const std::string& name);

// The methods: those for which golden/ has arguments.
const std::vector<std::string>& Methods();

// The method's good argument packet; and with another value for one argument, or without that argument.
std::string Arguments(const std::string& method);
std::string ArgumentsWith(const std::string& method, const std::string& name, const std::string& value);
std::string ArgumentsWithout(const std::string& method, const std::string& name);

// The value of an argument in an argument packet, as it stands there.
std::string ArgumentIn(const std::string& packet, const std::string& name);

// Puts `by` in the place of the first `what`.
void Replace(std::string& text, const std::string& what, const std::string& by);

// A scenario in which every function of the device answers always the same.
extern const char* const kEveryday;

// A section of a scenario that gives a function this result.
std::string Result(const std::string& function, int result);

// A text as the value of a scenario's key, and as a string of a packet.
std::string Quoted(std::string_view text);
std::string StringValue(std::string_view text);
std::string NumberValue(int number);

} // namespace rdx::test

#endif
