# The Debian packages: libruvo1, libruvo-dev and ruvo-tools, one for each component of the install
# rules. `cmake --workflow --preset package` leaves them in build/package.

if(NOT RUVO_INSTALL)
  message(FATAL_ERROR "RUVO_DEBIAN_PACKAGES needs RUVO_INSTALL: the packages are made from the install rules")
endif()

# Reports missing tools here: without dpkg-shlibdeps cpack makes packages without dependencies, and without `file` it
# fails after everything has been built.
foreach(program IN ITEMS dpkg-shlibdeps file)
  find_program(program_path ${program} NO_CACHE)
  if(NOT program_path)
    message(FATAL_ERROR "Debian packages cannot be made without ${program}: install dpkg-dev and file, as "
                        "`scripts/deps.sh build package` does")
  endif()
  unset(program_path)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Everybody may read the folders, whatever the builder's umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime devel)
if(RUVO_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE libruvo)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${RUVO_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# A program that is linked with the library gets its dependency from the symbols through dpkg-shlibdeps, or from the
# shlibs if that is too old for symbols. Both concern only libruvo1, the package with the libraries.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Each description below begins with its own summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(about "libruvo gives multi-threaded server processes a flat function interface to
Redis: string keys, hashes, lists, sets and any other command, on three pools
of servers.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libruvo1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers
                                               ${PROJECT_BINARY_DIR}/symbols)
# Refuses libraries whose exported symbols differ from the list.
add_custom_command(
  OUTPUT ${PROJECT_BINARY_DIR}/symbols
  COMMAND dpkg-gensymbols -plibruvo1 -v${PROJECT_VERSION} -e$<TARGET_FILE:ruvo> -e$<TARGET_FILE:stream_log>
          -I${PROJECT_SOURCE_DIR}/packaging/libruvo1.symbols -c4 -O${PROJECT_BINARY_DIR}/symbols
  DEPENDS ruvo stream_log ${PROJECT_SOURCE_DIR}/packaging/libruvo1.symbols
  COMMENT "Symbols of libruvo1"
  VERBATIM)
add_custom_target(debian_symbols ALL DEPENDS ${PROJECT_BINARY_DIR}/symbols)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Redis for multi-threaded server processes
${about}

This package has the shared library and its stream logger.")

set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME libruvo-dev)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
# Raw commands return hiredis replies: ruvo.hpp includes its header.
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS "libruvo1 (= ${PROJECT_VERSION}), libhiredis-dev")
set(CPACK_DEBIAN_DEVEL_DESCRIPTION "Redis for multi-threaded server processes (development files)
${about}

This package has the headers, the files for CMake and pkg-config, the examples
and the manual page libruvo(3).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ruvo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION database)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds the project's own libraries here, but not the package that contains them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src
                                                ${PROJECT_BINARY_DIR}/platform/stream_log)
# The tools read the library's log lines, so they need the version that they were built with.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libruvo1 (= ${PROJECT_VERSION})")
# ruvo_chaos starts Redis servers, unless its options name some.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS redis-server)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Redis through libruvo, from the command line
${about}

This package has ruvo_cli, which checks a configuration, runs operations,
watches servers and measures them under load, ruvo_chaos, a host under faults
that judges every call, their manual pages and ruvo.conf(5), the guides
(settings, failures and lines of the log, speed, growth), and a sample
configuration.")

include(CPack)
