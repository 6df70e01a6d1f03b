# librDxsH.so: the objects of every module, with the marked names exported and nothing else.
find_package(Threads REQUIRED)
get_property(modules GLOBAL PROPERTY RDX_MODULES)
set(objects)
foreach(module IN LISTS modules)
  list(APPEND objects $<TARGET_OBJECTS:rdx_${module}>)
endforeach()
add_library(rDxsH SHARED ${objects})
add_library(rDxsH::rDxsH ALIAS rDxsH)
target_link_libraries(rDxsH PRIVATE rdx_options DxSvcs Threads::Threads crypt)
target_include_directories(rDxsH INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/rDxsH>)

set_target_properties(rDxsH PROPERTIES INSTALL_RPATH "$ORIGIN")

include(${CMAKE_CURRENT_LIST_DIR}/BuildDate.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/Install.cmake)
