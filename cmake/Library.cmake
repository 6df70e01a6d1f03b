# librDxsH.so: the objects of every module, with the marked names exported and nothing else.
find_package(Threads REQUIRED)
get_property(modules GLOBAL PROPERTY RDX_MODULES)
set(objects)
foreach(module IN LISTS modules)
  list(APPEND objects $<TARGET_OBJECTS:rdx_${module}>)
endforeach()
add_library(rDxsH SHARED ${objects})
add_library(rDxsH::rDxsH ALIAS rDxsH)
target_link_libraries(rDxsH PRIVATE rdx_options Threads::Threads)

# The device library is loaded with this one, whether or not the linker sees a use of it. So is libcrypt: a
# sanitizer's runtime has its functions too, but only to call the real ones.
set(CMAKE_CXX_LINK_LIBRARY_USING_ALWAYS LINKER:--push-state,--no-as-needed <LINK_ITEM> LINKER:--pop-state)
set(CMAKE_CXX_LINK_LIBRARY_USING_ALWAYS_SUPPORTED TRUE)
target_link_libraries(rDxsH PRIVATE $<LINK_LIBRARY:ALWAYS,DxSvcs,crypt>)
target_include_directories(rDxsH INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/rDxsH>)

# Templates of the C++ library come with default visibility where they are not inlined.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/rDxsH.map "{ local: _Z*; };\n")
target_link_options(rDxsH PRIVATE -Wl,--version-script=${CMAKE_CURRENT_BINARY_DIR}/rDxsH.map)

# One path for both trees. A build path that is rewritten at installation would be padded with empty
# entries, which the loader takes for the current directory.
set_target_properties(rDxsH PROPERTIES INSTALL_RPATH "$ORIGIN" BUILD_WITH_INSTALL_RPATH ON)

include(${CMAKE_CURRENT_LIST_DIR}/BuildDate.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/Install.cmake)
