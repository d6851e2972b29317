# The folders a plain install (cmake --install, all components) makes, noted in
# install_folders.txt beside install_manifest.txt, so that the uninstall target
# (packaging/Uninstall.cmake) removes them with the files while folders that were there before,
# such as /usr/local/bin, stay. The first install step calls vexlo_folders_before(), the last
# vexlo_folders_after(); an install into a staging folder (DESTDIR, as CPack does) notes nothing.
#
# VEXLO_INSTALL_FOLDERS: the folders files go to, relative to the prefix or absolute; each of them
# and its parents are the folders an install may make.

function(vexlo_folder_chain out)
  set(chain)
  foreach(dir IN LISTS VEXLO_INSTALL_FOLDERS)
    if(NOT IS_ABSOLUTE "${dir}")
      set(dir "${CMAKE_INSTALL_PREFIX}/${dir}")
    endif()
    get_filename_component(dir "${dir}" ABSOLUTE)
    while(NOT dir STREQUAL "/" AND NOT dir STREQUAL "")
      list(APPEND chain "${dir}")
      get_filename_component(dir "${dir}" DIRECTORY)
    endwhile()
  endforeach()
  list(REMOVE_DUPLICATES chain)
  set(${out} "${chain}" PARENT_SCOPE)
endfunction()

macro(vexlo_folders_before)
  set(VEXLO_FOLDERS_BEFORE)
  if(NOT DEFINED ENV{DESTDIR} OR "$ENV{DESTDIR}" STREQUAL "")
    vexlo_folder_chain(chain)
    foreach(dir IN LISTS chain)
      if(IS_DIRECTORY "${dir}")
        list(APPEND VEXLO_FOLDERS_BEFORE "${dir}")
      endif()
    endforeach()
  endif()
endmacro()

# Adds the folders made since vexlo_folders_before() to NOTES, keeping those noted by an earlier
# install that still exist.
function(vexlo_folders_after notes)
  if(DEFINED ENV{DESTDIR} AND NOT "$ENV{DESTDIR}" STREQUAL "")
    return()
  endif()
  set(made)
  if(EXISTS "${notes}")
    file(STRINGS "${notes}" made)
  endif()
  vexlo_folder_chain(chain)
  foreach(dir IN LISTS chain)
    list(FIND VEXLO_FOLDERS_BEFORE "${dir}" was)
    if(IS_DIRECTORY "${dir}" AND was EQUAL -1)
      list(APPEND made "${dir}")
    endif()
  endforeach()
  set(kept)
  foreach(dir IN LISTS made)
    if(IS_DIRECTORY "${dir}")
      list(APPEND kept "${dir}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES kept)
  string(REPLACE ";" "\n" text "${kept}")
  file(WRITE "${notes}" "${text}\n")
endfunction()
