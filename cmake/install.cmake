include(CMakePackageConfigHelpers)

set(package_dir ${RUVO_INSTALL_LIBDIR}/cmake/ruvo)

# Every rule names its component: runtime, devel or tools. Each component is a package, see packages.cmake.
install(TARGETS ruvo stream_log EXPORT ruvo-targets
        LIBRARY DESTINATION ${RUVO_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel)
if(RUVO_BUILD_TOOLS)
  set_target_properties(ruvo_cli ruvo_chaos PROPERTIES INSTALL_RPATH "$ORIGIN/../${RUVO_INSTALL_LIBDIR}")
  install(TARGETS ruvo_cli ruvo_chaos RUNTIME DESTINATION bin COMPONENT tools)
endif()
install(EXPORT ruvo-targets NAMESPACE ruvo:: FILE ruvoTargets.cmake DESTINATION ${package_dir}
        COMPONENT devel)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ruvoConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/ruvoConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ruvoConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ruvoConfig.cmake ${PROJECT_BINARY_DIR}/ruvoConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT devel)

# The prefix is relative to the file's place, so that an installed tree can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
           BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${RUVO_INSTALL_LIBDIR}/pkgconfig
           OUTPUT_VARIABLE prefix_from_pc)
foreach(package IN ITEMS ruvo stream_log)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${package}.pc.in
                 ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${RUVO_INSTALL_LIBDIR}/pkgconfig
          COMPONENT devel)
endforeach()

# The examples are sources to read and to start from, with a CMake file that builds them in place.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ COMPONENT devel
        DESTINATION ${RUVO_INSTALL_DOCDIR}/libruvo-dev/examples
        FILES_MATCHING PATTERN "*.cpp" PATTERN "*.c" PATTERN "*.h"
                       PATTERN "*.cfg" PATTERN "CMakeLists.txt")
# A sample, not a configuration: its servers are fictitious.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/conf/ COMPONENT tools
        DESTINATION ${RUVO_INSTALL_DOCDIR}/ruvo-tools/examples)
