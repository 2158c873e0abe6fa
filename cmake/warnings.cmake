# Compiler options for all code of the project. Warnings are errors in the developers' presets only.
add_library(ruvo_build_flags INTERFACE)
target_compile_options(
  ruvo_build_flags
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wconversion
            -Wsign-conversion
            -Wshadow
            -Wformat=2
            -Wundef
            -Wcast-align
            $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
            $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
            $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
            # No path of the building machine in the binary.
            -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(RUVO_SANITIZE)
  target_compile_options(ruvo_build_flags INTERFACE -fsanitize=${RUVO_SANITIZE}
                                                    -fno-sanitize-recover=all
                                                    -fno-omit-frame-pointer)
  target_link_options(ruvo_build_flags INTERFACE -fsanitize=${RUVO_SANITIZE})
else()
  # Sanitizers leave symbols undefined that their own library defines.
  target_link_options(ruvo_build_flags INTERFACE -Wl,-z,defs)
endif()
