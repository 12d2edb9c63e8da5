# wd64_release_binary(TARGET DESCRIPTION): gives a shipped binary its version
# resource and, in release builds, strips it (a debug build keeps its symbols
# for the debugger).
#
# A target whose own .rc already declares VERSIONINFO keeps it: two version
# resources in one binary do not link.
set(WD64_COMPANY_NAME "WatchDog64")
option(WD64_STRIP "Strip shipped binaries in release builds" ON)
set(_wd64_release_dir ${CMAKE_CURRENT_LIST_DIR})

function(wd64_release_binary target description)
  get_target_property(type ${target} TYPE)
  get_target_property(sources ${target} SOURCES)
  get_target_property(source_dir ${target} SOURCE_DIR)
  get_target_property(output_name ${target} OUTPUT_NAME)
  if(NOT output_name)
    set(output_name ${target})
  endif()
  if(type STREQUAL "EXECUTABLE")
    set(WD64_FILE_NAME ${output_name}.exe)
    set(WD64_FILE_TYPE VFT_APP)
  else()
    set(WD64_FILE_NAME ${output_name}.dll)
    set(WD64_FILE_TYPE VFT_DLL)
  endif()

  set(has_version FALSE)
  foreach(source ${sources})
    if(source MATCHES "\\.rc$")
      if(NOT IS_ABSOLUTE ${source})
        set(source ${source_dir}/${source})
      endif()
      if(EXISTS ${source})
        file(STRINGS ${source} lines REGEX "VERSIONINFO")
        if(lines)
          set(has_version TRUE)
        endif()
      endif()
    endif()
  endforeach()

  if(NOT has_version)
    set(WD64_FILE_DESCRIPTION "${description}")
    set(WD64_VERSION ${PROJECT_VERSION})
    set(WD64_VERSION_COMMAS
        "${PROJECT_VERSION_MAJOR},${PROJECT_VERSION_MINOR},${PROJECT_VERSION_PATCH},${PROJECT_VERSION_TWEAK}")
    set(rc ${CMAKE_BINARY_DIR}/version/${target}.version.rc)
    configure_file(${_wd64_release_dir}/Version.rc.in ${rc} @ONLY)
    target_sources(${target} PRIVATE ${rc})
  endif()

  # Stripped by the linker: a post-build step cannot be attached to targets
  # of other folders, and this is called from the top level.
  if(WD64_STRIP AND CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$")
    target_link_options(${target} PRIVATE -s)
  endif()
endfunction()
