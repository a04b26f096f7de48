# Log lines name their source as its path from the repository root without
# extension ("Updater/Updater"). Each source file of a target gets that text as
# KX_LOG_FILE, so the name is right whatever directory the build runs from.
function(kx_log_file_names target)
  get_target_property(_srcs ${target} SOURCES)
  get_target_property(_dir ${target} SOURCE_DIR)
  foreach(_src IN LISTS _srcs)
    if(NOT _src MATCHES "\\.(c|cc|cpp|cxx|mm)$")
      continue()
    endif()
    get_filename_component(_abs "${_src}" ABSOLUTE BASE_DIR "${_dir}")
    file(RELATIVE_PATH _rel "${CMAKE_SOURCE_DIR}" "${_abs}")
    string(REGEX REPLACE "\\.[^./]*$" "" _rel "${_rel}")
    # By absolute path: a relative one would be read against the directory
    # that calls this function, which for a target that gets sources from
    # several directories is not where the file lies.
    set_property(SOURCE "${_abs}" TARGET_DIRECTORY ${target}
                 APPEND PROPERTY COMPILE_DEFINITIONS "KX_LOG_FILE=\"${_rel}\"")
  endforeach()
endfunction()
