# Compiler settings that every target of the project shares.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON) # the POSIX and GNU declarations of the C library
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# Programs and libraries lie together, so that $ORIGIN alone finds a library.
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

set(RDX_SANITIZE "" CACHE STRING "Sanitizers for -fsanitize=, such as address,undefined or thread")
option(RDX_COVERAGE "Instrument for gcov" OFF)
# Who only builds may have a compiler that warns of more than ours; the presets have warnings fail.
option(RDX_WERROR "Let the compiler's warnings fail the build" OFF)

add_library(rdx_options INTERFACE)
target_include_directories(rdx_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(rdx_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wcast-align
  -Wformat=2 -Wundef -Wnon-virtual-dtor -Wold-style-cast -Wimplicit-fallthrough $<$<BOOL:${RDX_WERROR}>:-Werror>
  # Reports name sources relative to the root, and the path of a checkout leaves no trace.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fstack-protector-strong)
target_link_options(rdx_options INTERFACE
  -Wl,-z,relro,-z,now,-z,noexecstack,--as-needed
  # RUNPATH, not RPATH: LD_LIBRARY_PATH must be able to put another device library first.
  -Wl,--enable-new-dtags)
if(RDX_SANITIZE)
  target_compile_options(rdx_options INTERFACE -fsanitize=${RDX_SANITIZE} -fno-sanitize-recover=all
                         -fno-omit-frame-pointer
                         # g++ 12 takes std::function for uninitialised when it is instrumented.
                         $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(rdx_options INTERFACE -fsanitize=${RDX_SANITIZE})
else()
  target_link_options(rdx_options INTERFACE -Wl,--no-undefined)
endif()
if(RDX_COVERAGE)
  target_compile_options(rdx_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(rdx_options INTERFACE --coverage)
endif()
