# For find_package(lofter). The target lofter::plugin has what a native plugin needs; a host has its plugins in
# ${lofter_PLUGIN_DIRECTORY}, also where this file comes from the root of another host.
if(NOT TARGET lofter::plugin)
  add_library(lofter::plugin INTERFACE IMPORTED)
  get_filename_component(lofter_usr "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
  set_target_properties(lofter::plugin PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${lofter_usr}/include")
  unset(lofter_usr)
endif()
set(lofter_PLUGIN_DIRECTORY /usr/libexec/lofter/plugins)
