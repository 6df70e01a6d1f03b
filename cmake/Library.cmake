# librDxsH.so: the objects of every module, with the marked names exported and nothing else.
find_package(Threads REQUIRED)
get_property(modules GLOBAL PROPERTY RDX_MODULES)
set(objects)
foreach(module IN LISTS modules)
  list(APPEND objects $<TARGET_OBJECTS:rdx_${module}>)
endforeach()
add_library(rDxsH SHARED ${objects})
target_link_libraries(rDxsH PRIVATE rdx_options DxSvcs Threads::Threads crypt)
