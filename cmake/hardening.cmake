# Everything that is shipped is hardened; scripts/check_hardening.sh checks the result. Builds with sanitizers, which
# check more and replace the same functions, and Debug, where -D_FORTIFY_SOURCE lacks the optimiser, are not hardened.
#
# -fcf-protection is omitted: the linker keeps its mark only if every object has it, and the start-up objects of Debian
# 12's C library do not, so no process would ever switch it on.
include(CheckPIESupported)
check_pie_supported()

if(NOT RUVO_SANITIZE)
  set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
  target_compile_options(
    ruvo_build_flags
    # Undefined first: a distribution's flags may have set another level.
    INTERFACE $<${optimised}:-U_FORTIFY_SOURCE>
              $<${optimised}:-D_FORTIFY_SOURCE=2>
              $<${optimised}:-fstack-protector-strong>
              $<${optimised}:-fstack-clash-protection>)
  # Every symbol is bound at start-up: a call needs no stub.
  target_compile_options(ruvo_build_flags INTERFACE -fno-plt)
  target_link_options(ruvo_build_flags INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
