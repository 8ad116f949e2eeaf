# Hardening of the program's own code, as a distribution builds it: fortified
# string and stdio calls where the optimiser runs, a strong stack protector,
# stack clash and control-flow protection where the compiler has them, a
# position-independent executable and full RELRO. The sanitizer and fuzz
# builds do without it.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported(OUTPUT_VARIABLE quenby_pie_message LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# Fortification needs optimisation: a Debug build would only warn.
target_compile_options(quenby_warnings INTERFACE
  $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
  $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>
  -fstack-protector-strong)
foreach(flag -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "QUENBY_HAS${flag}" var)
  check_cxx_compiler_flag(${flag} ${var})
  if(${var})
    target_compile_options(quenby_warnings INTERFACE ${flag})
  endif()
endforeach()
target_link_options(quenby_warnings INTERFACE -Wl,-z,relro -Wl,-z,now)
