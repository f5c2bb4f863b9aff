# Installation of orvlib as a system library, and its Debian package.
#
#   cmake --install BUILD [--prefix DIR]
#
# puts, below the prefix (GNU layout; lib/<multiarch> under /usr on Debian):
#   lib/liborvlib.so.6.0.0, liborvlib.so.6 (SONAME), liborvlib.so (link)
#   include/orvldap.h, include/orvplatforms.h
#   lib/pkgconfig/orvlib.pc, lib/cmake/orvlib/ (find_package(orvlib) gives
#   orvlib::orvlib)
#   bin/orvctl, share/man/man1/orvctl.1, bash completion
#   the server side in its own places: the 389 DS plugin in
#   lib/dirsrv/plugins, the ORV schema and the plugin entry template in
#   share/orvlib, with a deployment note in share/doc/orvlib.
#
# Components: runtime, dev, tools, server.  `cpack -G DEB` (./run package)
# makes one Debian package of all of them.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ORV_PLUGIN_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/dirsrv/plugins" CACHE STRING
  "Where the 389 Directory Server plugin is installed (relative to the prefix)")
set(ORV_DATA_INSTALL_DIR "${CMAKE_INSTALL_DATADIR}/orvlib" CACHE STRING
  "Where the ORV schema and the plugin entry template are installed")
set(ORV_CMAKE_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/orvlib")

# ---------------------------------------------------------------- library
install(TARGETS orvlib
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES
  ${CMAKE_SOURCE_DIR}/engine/ldap/include/orvldap.h
  ${CMAKE_SOURCE_DIR}/engine/ldap/include/orvplatforms.h
  ${CMAKE_SOURCE_DIR}/engine/ldap/include/orvldap_registry.h
  ${CMAKE_SOURCE_DIR}/engine/ldap/include/orvldap_relationship.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# pkg-config: the prefix is found from the .pc file's own place, so the
# installed tree can move (scratch prefixes, DESTDIR, packages).
file(RELATIVE_PATH ORV_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" ORV_PC_TO_PREFIX "${ORV_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/orvlib.pc.in ${CMAKE_BINARY_DIR}/orvlib.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/orvlib.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# CMake package: an imported target for the installed library.
get_target_property(ORV_LIBRARY_VERSION orvlib VERSION)
get_target_property(ORV_LIBRARY_SOVERSION orvlib SOVERSION)
set(ORV_LIBRARY_FILE "${CMAKE_SHARED_LIBRARY_PREFIX}orvlib${CMAKE_SHARED_LIBRARY_SUFFIX}.${ORV_LIBRARY_VERSION}")
set(ORV_LIBRARY_SONAME "${CMAKE_SHARED_LIBRARY_PREFIX}orvlib${CMAKE_SHARED_LIBRARY_SUFFIX}.${ORV_LIBRARY_SOVERSION}")
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/orvlibConfig.cmake.in
  ${CMAKE_BINARY_DIR}/orvlibConfig.cmake
  INSTALL_DESTINATION ${ORV_CMAKE_INSTALL_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/orvlibConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/orvlibConfig.cmake ${CMAKE_BINARY_DIR}/orvlibConfigVersion.cmake
  DESTINATION ${ORV_CMAKE_INSTALL_DIR} COMPONENT dev)

# ---------------------------------------------------------------- orvctl
if(TARGET orvctl)
  # Outside the system library folders the tool finds the library next to
  # itself; in /usr it needs no search path.
  list(FIND CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES "${CMAKE_INSTALL_FULL_LIBDIR}" ORV_LIBDIR_IS_SYSTEM)
  if(ORV_LIBDIR_IS_SYSTEM EQUAL -1)
    set_target_properties(orvctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
  install(TARGETS orvctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES ${CMAKE_SOURCE_DIR}/tools/orvctl.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${CMAKE_SOURCE_DIR}/tools/orvctl.bash-completion
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME orvctl COMPONENT tools)
endif()

# ---------------------------------------------------------------- server side
if(TARGET orv_plugin)
  install(TARGETS orv_plugin LIBRARY DESTINATION ${ORV_PLUGIN_INSTALL_DIR} COMPONENT server)
  install(FILES ${CMAKE_SOURCE_DIR}/server/plugin/orv-plugin.ldif.in
    DESTINATION ${ORV_DATA_INSTALL_DIR} COMPONENT server)
endif()
file(GLOB ORV_SCHEMA_FILES ${CMAKE_SOURCE_DIR}/server/schema/*.ldif)
install(FILES ${ORV_SCHEMA_FILES} DESTINATION ${ORV_DATA_INSTALL_DIR}/schema COMPONENT server)
install(FILES ${CMAKE_SOURCE_DIR}/docs/server-deployment.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT server)

# ---------------------------------------------------------------- tests
if(ORV_BUILD_TESTS AND NOT ORV_SANITIZE AND NOT ORV_CLIENT_ONLY)
  add_test(NAME install_tree
    COMMAND ${CMAKE_SOURCE_DIR}/tests/install/install_test.sh ${CMAKE_BINARY_DIR}
            ${CMAKE_SOURCE_DIR}/examples/link_example.c ${CMAKE_C_COMPILER})
  set_tests_properties(install_tree PROPERTIES LABELS install TIMEOUT 300)
  add_test(NAME debian_package
    COMMAND ${CMAKE_SOURCE_DIR}/tests/install/package_test.sh --build ${CMAKE_BINARY_DIR})
  set_tests_properties(debian_package PROPERTIES LABELS install TIMEOUT 300)
endif()
if(ORV_BUILD_TESTS AND NOT ORV_SANITIZE)
  add_test(NAME orvctl_completion
    COMMAND bash ${CMAKE_SOURCE_DIR}/tests/install/completion_test.sh ${CMAKE_SOURCE_DIR}/tools/orvctl.bash-completion)
  set_tests_properties(orvctl_completion PROPERTIES LABELS unit)
endif()

# ---------------------------------------------------------------- package
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvlib)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "ORV")
set(CPACK_PACKAGE_CONTACT "orvlib maintainers <orvlib@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "ORV directory client library, orvctl, headers and 389 DS plugin")
set(CPACK_PACKAGE_DESCRIPTION
  "liborvlib.so.6 (C interface, LDAP v3 through OpenLDAP), its header, pkg-config\n and CMake files, the orvctl tool with its manual page and bash completion,\n and the ORV plugin and schema for 389 Directory Server.")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "389-ds-base")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
