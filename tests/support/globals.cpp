#include "tests/support/globals.h"

#include "common/config.h"
#include "common/log.h"
#include "common/mt.h"
#include "common/portability_sockets.h"
#include "common/signals.h"
#include "server/service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <vector>

// A module that is not linked in has none of its globals: their addresses are null.
#define WEAK(name) extern "C" __attribute__((weak)) decltype(name) name;
#define GLOBALS(X)                                                                                           \
    X(szClientAddresses)                                                                                     \
    X(ucProtocolVersion)                                                                                     \
    X(ucEntityTerminator)                                                                                    \
    X(szEntityTerminator)                                                                                    \
    X(ucAuthRequired)                                                                                        \
    X(szConfigAuthInfo)                                                                                      \
    X(szConfigAuthRealm)                                                                                     \
    X(szConfigSvcPort)                                                                                       \
    X(szConfigSvcAddr)                                                                                       \
    X(aiMethodsAllowed)                                                                                      \
    X(szConfigLogfile)                                                                                       \
    X(ucSupportNetscapeVM)                                                                                   \
    X(szConfigVoltageFile)                                                                                   \
    X(uiVoltageMaxAge)                                                                                       \
    X(ucVoltageFromCar)                                                                                      \
    X(ucLocalAccessAllowed)                                                                                  \
    X(szMorbelRemoteHost)                                                                                    \
    X(ucSemaProtection)                                                                                      \
    X(ucRunAsJunior)                                                                                         \
    X(szAuthInfo)                                                                                            \
    X(szAdminServerHost)                                                                                     \
    X(uiAdminServerPort)                                                                                     \
    X(nMaxThreads)                                                                                           \
    X(g_dwPostMaxSizeToRead)                                                                                 \
    X(g_dwPostMaxContLength)                                                                                 \
    X(uiReconfigurations)                                                                                    \
    X(ucReconfigured)                                                                                        \
    X(errlog)                                                                                                \
    X(outlog)                                                                                                \
    X(ucVerbosity)                                                                                           \
    X(nThreads)                                                                                              \
    X(mtPrimaryThread)                                                                                       \
    X(usPortOffset)                                                                                          \
    X(sigerr)                                                                                                \
    X(signalled)                                                                                             \
    X(ucTerminated)

GLOBALS(WEAK)

namespace {

struct Global {
    char* address;
    std::vector<char> first;
};

#define GLOBAL(name) Copy(&name, sizeof name),

template <typename T>
Global Copy(T* global, std::size_t size) {
    char* const bytes = reinterpret_cast<char*>(global);
    return {bytes, bytes == nullptr ? std::vector<char>() : std::vector<char>(bytes, bytes + size)};
}

// Taken before any test runs.
const std::vector<Global> atLoad = {GLOBALS(GLOBAL)};

class BeforeEachTest : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { rdx::test::ResetGlobals(); }
};

[[maybe_unused]] const bool installed = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new BeforeEachTest);
    return true;
}();

} // namespace

void rdx::test::ResetGlobals() {
    for (const Global& global : atLoad) {
        for (std::size_t i = 0; i < global.first.size(); ++i) {
            std::atomic_ref(global.address[i]).store(global.first[i], std::memory_order_release);
        }
    }
}
