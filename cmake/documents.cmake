# The manual pages, the guides, the change log, and the API reference with Doxygen (target `reference`, if Doxygen is
# installed).

# The pages have the date of the newest entry in the change log.
set(change_log ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
file(STRINGS ${change_log} release LIMIT_COUNT 1 REGEX "^## \\[[0-9.]+\\] - [0-9-]+$")
string(REGEX REPLACE ".* - ([0-9]+)-([0-9]+)-0?([0-9]+)$" "\\1;\\2;\\3" release "${release}")
list(POP_FRONT release RUVO_YEAR month RUVO_DAY)
set(months January February March April May June July August September October November December)
math(EXPR month "${month} - 1")
list(GET months ${month} RUVO_MONTH)

# Creates <file>.gz for a file in the build folder: Debian compresses installed documents.
function(compress file)
  execute_process(COMMAND gzip --best --no-name --keep --force ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(manual_page page section component)
  set(text ${PROJECT_BINARY_DIR}/man/${page}.${section})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/man/${page}.${section}.in ${text} @ONLY)
  compress(${text})
  install(FILES ${text}.gz DESTINATION ${RUVO_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()

manual_page(libruvo 3 devel)
manual_page(ruvo.conf 5 tools)
if(RUVO_BUILD_TOOLS)
  manual_page(ruvo_cli 1 tools)
  manual_page(ruvo_chaos 1 tools)
endif()

# The guides, for operators of hosts. The targets of their links have other paths when installed.
set(guides_dir ${RUVO_INSTALL_DOCDIR}/ruvo-tools/docs)
file(GLOB guides CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${guides})
foreach(guide IN LISTS guides)
  file(READ ${guide} text)
  string(REPLACE "](../examples/" "](../../libruvo-dev/examples/" text "${text}")
  string(REPLACE "](../conf" "](../examples" text "${text}")
  cmake_path(GET guide FILENAME name)
  file(WRITE ${PROJECT_BINARY_DIR}/docs/${name} "${text}")
  install(FILES ${PROJECT_BINARY_DIR}/docs/${name} DESTINATION ${guides_dir} COMPONENT tools)
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/figures DESTINATION ${guides_dir} COMPONENT tools
        FILES_MATCHING PATTERN "*.svg" PATTERN "*.csv")

# Each package has the change log, in Debian's form, and its licence.
set(changelog_script ${PROJECT_SOURCE_DIR}/packaging/changelog.awk)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${change_log} ${changelog_script})
execute_process(COMMAND awk -v maintainer=${RUVO_MAINTAINER} -f ${changelog_script} ${change_log}
                OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog COMMAND_ERROR_IS_FATAL ANY)
compress(${PROJECT_BINARY_DIR}/changelog)
foreach(package IN ITEMS libruvo1:runtime libruvo-dev:devel ruvo-tools:tools)
  string(REPLACE ":" ";" package ${package})
  list(POP_FRONT package name component)
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz ${PROJECT_SOURCE_DIR}/packaging/copyright
          DESTINATION ${RUVO_INSTALL_DOCDIR}/${name} COMPONENT ${component})
endforeach()

find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(
    reference
    COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
    COMMENT "API reference: ${PROJECT_BINARY_DIR}/reference/index.html"
    VERBATIM)
endif()
