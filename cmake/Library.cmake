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

# The number changes with the first release in which a program built before would go wrong.
set_target_properties(rDxsH PROPERTIES SOVERSION 0)

# The device library is loaded with this one, whether or not the linker sees a use of it. So is libcrypt: a
# sanitizer's runtime has its functions too, but only to call the real ones.
set(CMAKE_CXX_LINK_LIBRARY_USING_ALWAYS LINKER:--push-state,--no-as-needed <LINK_ITEM> LINKER:--pop-state)
set(CMAKE_CXX_LINK_LIBRARY_USING_ALWAYS_SUPPORTED TRUE)
# By its file: as a target it would have to be installed wherever this library is.
target_link_libraries(rDxsH PRIVATE $<LINK_LIBRARY:ALWAYS,$<TARGET_FILE:DxSvcs>,crypt>)
add_dependencies(rDxsH DxSvcs)
target_include_directories(rDxsH INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/rDxsH>)

# A program that is linked with this library finds the device library when it runs, not before: an installed
# tree may have none. The pkg-config file says the same.
target_link_options(rDxsH INTERFACE
  $<BUILD_INTERFACE:LINKER:-rpath-link,${CMAKE_LIBRARY_OUTPUT_DIRECTORY}>
  $<INSTALL_INTERFACE:LINKER:--allow-shlib-undefined>)

set(RDX_MAP ${PROJECT_SOURCE_DIR}/cmake/rDxsH.map)
target_link_options(rDxsH PRIVATE LINKER:--version-script=${RDX_MAP})
set_target_properties(rDxsH PROPERTIES LINK_DEPENDS ${RDX_MAP})

# In the build tree the simulated device lies beside the library. A build path that CMake rewrites at
# installation would be padded with empty entries, which the loader takes for the current directory; so this one
# is the "installed" one, and is removed there (Install.cmake).
set_target_properties(rDxsH PROPERTIES INSTALL_RPATH "$ORIGIN" BUILD_WITH_INSTALL_RPATH ON)

include(${CMAKE_CURRENT_LIST_DIR}/BuildDate.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/Install.cmake)
