# rdx_module(NAME FILE... [DEPENDS MODULE...])
#
# One module of the library as a static library `rdx_NAME`, made of its sources and headers. Unit tests link
# these directly, with every symbol in reach; `librDxsH.so` is made of the same objects. A module names every
# module whose headers it includes, and no other; a test holds that, and the order of the list.
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
  # What the test of the floors reads.
  list(JOIN arg_UNPARSED_ARGUMENTS " " files)
  list(JOIN arg_DEPENDS " " dependencies)
  set_property(GLOBAL APPEND_STRING PROPERTY RDX_MODULE_LIST "${name}: ${files}: ${dependencies}\n")
endfunction()
