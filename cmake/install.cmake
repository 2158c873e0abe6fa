include(CMakePackageConfigHelpers)

set(package_dir ${RUVO_INSTALL_LIBDIR}/cmake/ruvo)

install(TARGETS ruvo stream_log EXPORT ruvo-targets LIBRARY DESTINATION ${RUVO_INSTALL_LIBDIR})
install(EXPORT ruvo-targets NAMESPACE ruvo:: FILE ruvoTargets.cmake DESTINATION ${package_dir})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ruvoConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/ruvoConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ruvoConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ruvoConfig.cmake ${PROJECT_BINARY_DIR}/ruvoConfigVersion.cmake
        DESTINATION ${package_dir})

# The prefix is reckoned from where the file lies, so that an installed tree can be moved.
foreach(package IN ITEMS ruvo stream_log)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${package}.pc.in
                 ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${RUVO_INSTALL_LIBDIR}/pkgconfig)
endforeach()
