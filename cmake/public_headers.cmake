# Public headers are in the folders of their units and are installed under one folder. The build tree has them in the
# installed layout, so that the project's users of the library include <ruvo/ruvo.h> like any other program.
set(RUVO_STAGED_INCLUDES ${PROJECT_BINARY_DIR}/include)

function(public_headers target folder)
  foreach(header IN LISTS ARGN)
    cmake_path(ABSOLUTE_PATH header NORMALIZE)
    cmake_path(GET header FILENAME name)
    file(MAKE_DIRECTORY ${RUVO_STAGED_INCLUDES}/${folder})
    file(CREATE_LINK ${header} ${RUVO_STAGED_INCLUDES}/${folder}/${name} SYMBOLIC)
    if(RUVO_INSTALL)
      install(FILES ${header} DESTINATION ${RUVO_INSTALL_INCLUDEDIR}/${folder} COMPONENT devel)
    endif()
  endforeach()
  target_include_directories(
    ${target} INTERFACE $<BUILD_INTERFACE:${RUVO_STAGED_INCLUDES}>
                        $<INSTALL_INTERFACE:${RUVO_INSTALL_INCLUDEDIR}>)
endfunction()

# Exports only what the version script names.
function(version_script target script)
  target_link_options(${target} PRIVATE -Wl,--version-script=${script})
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${script} SOVERSION 1)
endfunction()
