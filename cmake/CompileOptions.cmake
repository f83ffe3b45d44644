# Three targets carry options to the others: `lofter_warnings` the warnings; `lofter_options` these, the hardening and the
# sanitizers; and `lofter_counted`, which does nothing in every build but that of ./dev coverage, the counting of lines.
option(LOFTER_WARNINGS_AS_ERRORS "Let no warning pass; the presets do" OFF)
option(LOFTER_COVERAGE "Count the lines that run" OFF)
option(LOFTER_FUZZERS "Give the programs of tests/fuzz clang's fuzzing engine; needs clang" OFF)
set(LOFTER_SANITIZE "" CACHE STRING "Sanitizers to build with, comma separated: address,undefined or thread")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

include(CheckPIESupported)
check_pie_supported()

add_library(lofter_warnings INTERFACE)
target_compile_options(lofter_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${LOFTER_WARNINGS_AS_ERRORS}>:-Werror>)

add_library(lofter_options INTERFACE)
target_link_libraries(lofter_options INTERFACE lofter_warnings)
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

add_library(lofter_counted INTERFACE)
if(LOFTER_COVERAGE)
  # Workers count at the same time.
  target_compile_options(lofter_counted INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(lofter_counted INTERFACE --coverage)
endif()
