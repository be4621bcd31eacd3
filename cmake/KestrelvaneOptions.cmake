# Compiler options shared by every target of the project.
#
# Results must be the same bits in every build: no fused multiply-add, no fast
# math. -fno-math-errno and -fno-trapping-math change no value, only what the
# optimiser may assume about errno and the exception flags, which nothing reads.
add_library(kestrelvane_options INTERFACE)
target_compile_options(kestrelvane_options INTERFACE
  -Wall -Wextra -Wconversion -Wno-sign-conversion -Werror
  -ffp-contract=off -fno-math-errno -fno-trapping-math)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Lanes lie at any address (numerics/simd.h). Clang forgets that of a reference that a routine
  # returns, and moves them as if they were aligned. No move of lanes asks for 8 bytes; counters of
  # several threads do.
  target_compile_options(kestrelvane_options INTERFACE -fmax-type-align=8)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Debug" OR KESTRELVANE_SANITIZE)
  target_compile_definitions(kestrelvane_options INTERFACE KESTRELVANE_CHECK_BOUNDS)
endif()
if(KESTRELVANE_SANITIZE)
  target_compile_options(kestrelvane_options INTERFACE
    -fsanitize=${KESTRELVANE_SANITIZE} -fno-omit-frame-pointer -g1)
  target_link_options(kestrelvane_options INTERFACE -fsanitize=${KESTRELVANE_SANITIZE})
  # The compiler loses sight of initialisations between the checks it adds.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(kestrelvane_options INTERFACE -Wno-maybe-uninitialized)
  endif()
  if(KESTRELVANE_SANITIZE MATCHES "undefined")
    target_compile_options(kestrelvane_options INTERFACE -fno-sanitize-recover=undefined)
  endif()
endif()
# As if the processor had no wider vectors: for the proof that results do not depend on them.
# Highway takes its targets as bits, the widest lowest.
if(KESTRELVANE_WIDEST STREQUAL "avx2")
  target_compile_definitions(kestrelvane_options INTERFACE
    KESTRELVANE_WIDEST_BITS=256 HWY_DISABLED_TARGETS=511)
elseif(KESTRELVANE_WIDEST STREQUAL "baseline")
  target_compile_definitions(kestrelvane_options INTERFACE
    KESTRELVANE_WIDEST_BITS=128 HWY_DISABLED_TARGETS=8191)
endif()
