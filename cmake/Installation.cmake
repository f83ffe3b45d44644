# What is installed besides programs and documents, and where: all paths are fixed, in the programs as well. DESTDIR names
# the root of another host; a prefix would be a place where nothing is looked for.
set(prefix_refusal "lofter is installed below /usr, where it looks for its files: a prefix of its own cannot be honoured."
  " To install into the root of another host, set DESTDIR.")
string(CONCAT prefix_refusal ${prefix_refusal})
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Fixed" FORCE)
elseif(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "${prefix_refusal}")
endif()
install(CODE "
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    message(FATAL_ERROR \"${prefix_refusal}\")
  endif()" ALL_COMPONENTS)

# The directories that make an installed root a host as far as lofter is concerned.
foreach(directory IN ITEMS
    /usr/libexec/lofter/plugins /etc/tessel/lofter /bootbank
    /usr/lib/tessel/qorcli/int/ext /usr/lib/tessel/qorcli/ext)
  install(DIRECTORY DESTINATION ${directory})
endforeach()
install(FILES cmake/lofter.tmpfiles DESTINATION /usr/lib/tmpfiles.d RENAME lofter.conf)
install(FILES cmake/lofter.logrotate DESTINATION /etc/logrotate.d RENAME lofter)

# Takes away what the last installations from this build tree have brought; DESTDIR as there.
add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -D BUILD=${PROJECT_BINARY_DIR} -P ${CMAKE_CURRENT_LIST_DIR}/Uninstall.cmake VERBATIM)
