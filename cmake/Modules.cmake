# rdx_module(NAME SOURCE... [DEPENDS MODULE...])
#
# One module of the library as a static library `rdx_NAME`. Unit tests link these directly, with every
# symbol in reach; `librDxsH.so` is made of the same objects. A module sees only what it depends on,
# so a call upwards fails to link in its own test.
function(rdx_module name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS")
  add_library(rdx_${name} STATIC EXCLUDE_FROM_ALL ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(rdx_${name} PRIVATE rdx_options)
  # The library is called from C and ends threads inside calls: nothing may rely on unwinding.
  target_compile_options(rdx_${name} PRIVATE -fno-exceptions -fno-rtti)
  foreach(dependency IN LISTS arg_DEPENDS)
    target_link_libraries(rdx_${name} PUBLIC rdx_${dependency})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY RDX_MODULES ${name})
endfunction()
