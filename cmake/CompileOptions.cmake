# One target, `lofter_options`, carries the language level, the warnings, the hardening and the sanitizers to every target.
option(LOFTER_WARNINGS_AS_ERRORS "Let no warning pass; the presets do" OFF)
option(LOFTER_FUZZERS "Give the programs of tests/fuzz clang's fuzzing engine; needs clang" OFF)
set(LOFTER_SANITIZE "" CACHE STRING "Sanitizers to build with, comma separated: address,undefined or thread")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

include(CheckPIESupported)
check_pie_supported()

add_library(lofter_options INTERFACE)
target_compile_options(lofter_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${LOFTER_WARNINGS_AS_ERRORS}>:-Werror>)
# g++ 12 sees overlapping copies in plain string concatenation when it optimises.
target_compile_options(lofter_options INTERFACE
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
target_compile_definitions(lofter_options INTERFACE _GNU_SOURCE _GLIBCXX_ASSERTIONS)
target_link_options(lofter_options INTERFACE -Wl,-z,relro,-z,now)

if(LOFTER_SANITIZE)
  # Here rather than among the target's options, so that a target may choose another level.
  string(APPEND CMAKE_C_FLAGS_DEBUG " -O1")
  string(APPEND CMAKE_CXX_FLAGS_DEBUG " -O1")
  target_compile_options(lofter_options INTERFACE
    -fsanitize=${LOFTER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(lofter_options INTERFACE -fsanitize=${LOFTER_SANITIZE})
  # The instrumentation itself makes g++ see uninitialized uses inside the standard library.
  target_compile_options(lofter_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
else()
  target_compile_options(lofter_options INTERFACE -fstack-protector-strong)
  target_compile_definitions(lofter_options INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()
