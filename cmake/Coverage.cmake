# `lofter_counted` makes a target count which of its lines run. It does nothing in every build but that of ./dev coverage.
option(LOFTER_COVERAGE "Count the lines that run" OFF)

add_library(lofter_counted INTERFACE)
if(LOFTER_COVERAGE)
  # Workers count at the same time.
  target_compile_options(lofter_counted INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(lofter_counted INTERFACE --coverage)

  # Counts are written at the end of main only, so the other ends of a process lead by here first.
  add_library(lofter_process_ends STATIC ${PROJECT_SOURCE_DIR}/tests/coverage/process_ends.c)
  target_compile_options(lofter_process_ends PRIVATE -Wall -Wextra -Werror)
  target_compile_definitions(lofter_process_ends PRIVATE _GNU_SOURCE)
  target_link_libraries(lofter_counted INTERFACE lofter_process_ends)
  foreach(call IN ITEMS _exit abort chroot execv execve)
    target_link_options(lofter_counted INTERFACE LINKER:--wrap=${call})
  endforeach()
endif()
