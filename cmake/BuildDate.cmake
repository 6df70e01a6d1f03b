# The configuration dump names the date of the build. It is the date of the commit, so that two builds of
# one commit are the same bytes: SOURCE_DATE_EPOCH if set, else what git says, else the compiler's clock.
find_program(RDX_GIT git)
mark_as_advanced(RDX_GIT)

set(epoch "$ENV{SOURCE_DATE_EPOCH}")
if(epoch STREQUAL "" AND RDX_GIT AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
  execute_process(COMMAND ${RDX_GIT} -c safe.directory=* log -1 --format=%ct
                  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                  OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(EXISTS ${PROJECT_SOURCE_DIR}/.git/logs/HEAD) # another commit, another date
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS .git/logs/HEAD)
  endif()
endif()

set(RDX_DATE_IS_COMMITS OFF)
if(epoch MATCHES "^[0-9]+$" AND TARGET rdx_config)
  set(RDX_DATE_IS_COMMITS ON)
  set(environment "$ENV{SOURCE_DATE_EPOCH}")
  set(ENV{SOURCE_DATE_EPOCH} ${epoch}) # what string(TIMESTAMP) goes by
  string(TIMESTAMP date "%b %d %Y" UTC)
  string(TIMESTAMP time "%H:%M:%S" UTC)
  if(environment STREQUAL "")
    unset(ENV{SOURCE_DATE_EPOCH})
  else()
    set(ENV{SOURCE_DATE_EPOCH} "${environment}")
  endif()
  string(REGEX REPLACE " 0" "  " date "${date}") # the compilers' form of a day below 10
  target_compile_options(rdx_config PRIVATE -Wno-builtin-macro-redefined
                         "-D__DATE__=\"${date}\"" "-D__TIME__=\"${time}\"")
endif()
