# wd64_message_dll(NAME SOURCE.mc): a resource-only DLL holding the message
# table compiled from SOURCE.mc, placed in build/bin. It has no code and no
# entry point: the module loads it as data only.
#
# The .mc sources are plain ASCII text (-a); the message table stores the
# texts as UTF-16 (-U), which is what FormatMessageW reads back unconverted.
function(wd64_message_dll name mc)
  get_filename_component(base ${mc} NAME_WE)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${name}_mc)
  add_custom_command(
    OUTPUT ${out}/${base}.rc ${out}/${base}.h
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${CMAKE_MC_COMPILER} -a -U -h ${out} -r ${out} ${CMAKE_CURRENT_SOURCE_DIR}/${mc}
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${mc}
    COMMENT "Compiling message table ${mc}")
  add_library(${name} SHARED ${out}/${base}.rc)
  set_target_properties(${name} PROPERTIES PREFIX "" LINKER_LANGUAGE C
    RC_FLAGS "-I${out}")
  target_link_options(${name} PRIVATE -nostdlib -Wl,--entry=0 -s)
  target_include_directories(${name} PRIVATE ${out})
  # The module looks its message files up next to itself at run time, so
  # whatever links the module's code (the DLL, test programs, benchmarks)
  # has them built first. WatchDogCore is defined after the message folder.
  set_property(GLOBAL APPEND PROPERTY WD64_MESSAGE_DLLS ${name})
endfunction()

function(_wd64_attach_message_dlls)
  get_property(dlls GLOBAL PROPERTY WD64_MESSAGE_DLLS)
  if(dlls AND TARGET WatchDogCore)
    add_dependencies(WatchDogCore ${dlls})
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL _wd64_attach_message_dlls)
