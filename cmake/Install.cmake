# What `cmake --install` puts into a prefix, by component:
#   runtime       the library and rdxhttpd
#   development   the headers of exported names, and what lets another project find the library
#   simulator     the simulated device and rdxadmin, only when asked for by name
include(CMakePackageConfigHelpers)

# Headers of exported names keep their folders below include/rDxsH.
set(RDX_HEADERS
  common/config.h common/export.h common/log.h common/mt.h common/portability.h
  common/portability_sockets.h common/signals.h
  http/http.h http/httpreq.h http/httpresp.h
  wddx/wddx.h
  client/tnp.h
  rDxsd/auth.h rDxsd/device_info.h rDxsd/pdata.h rDxsd/rDxSvcs.h rDxsd/rDxWddx.h rDxsd/rDxsd.h
  server/rdxhttp.h server/service.h)
foreach(header IN LISTS RDX_HEADERS)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/rDxsH/${folder}
          COMPONENT development)
endforeach()

install(TARGETS rDxsH EXPORT rDxsH
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
# Without a run path, the loader looks for the device library where the system keeps libraries, and nowhere else.
install(CODE "
  cmake_path(APPEND library \"\${CMAKE_INSTALL_PREFIX}\" ${CMAKE_INSTALL_LIBDIR} $<TARGET_SONAME_FILE_NAME:rDxsH>)
  file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${library}\")
" COMPONENT runtime)

set(RDX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/rDxsH)
install(EXPORT rDxsH NAMESPACE rDxsH:: FILE rDxsHTargets.cmake DESTINATION ${RDX_PACKAGE_DIR}
        COMPONENT development)
configure_package_config_file(cmake/rDxsHConfig.cmake.in rDxsHConfig.cmake
                              INSTALL_DESTINATION ${RDX_PACKAGE_DIR})
write_basic_package_version_file(rDxsHConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/rDxsHConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/rDxsHConfigVersion.cmake DESTINATION ${RDX_PACKAGE_DIR}
        COMPONENT development)

# The pkg-config file finds the prefix from its own place, so that the tree can be moved.
set(RDX_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH RDX_PREFIX_FROM_PKGCONFIG
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/rDxsH.pc.in rDxsH.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/rDxsH.pc DESTINATION ${RDX_PKGCONFIG_DIR}
        COMPONENT development)
