# The zip writer comes from Debian's maintained minizip source package, which
# scripts/fetch-deps.sh unpacks into .deps/minizip (never committed). Only the
# writer half is compiled, against the static MinGW zlib, and linked into the
# module's core.
set(WD64_MINIZIP_DIR ${CMAKE_SOURCE_DIR}/.deps/minizip CACHE PATH "Unpacked minizip sources")

if(NOT EXISTS ${WD64_MINIZIP_DIR}/zip.c OR NOT EXISTS ${WD64_MINIZIP_DIR}/ioapi.c
   OR NOT EXISTS ${WD64_MINIZIP_DIR}/iowin32.c)
  message(FATAL_ERROR "minizip sources not found in ${WD64_MINIZIP_DIR}; run scripts/fetch-deps.sh (as root)")
endif()

find_library(WD64_ZLIB_STATIC NAMES libz.a REQUIRED)
find_path(WD64_ZLIB_INCLUDE NAMES zlib.h REQUIRED)

add_library(wd64_minizip STATIC
  ${WD64_MINIZIP_DIR}/zip.c
  ${WD64_MINIZIP_DIR}/ioapi.c
  # Wide Win32 file functions: archive paths outside the code page.
  ${WD64_MINIZIP_DIR}/iowin32.c)
target_include_directories(wd64_minizip SYSTEM PUBLIC ${WD64_MINIZIP_DIR} ${WD64_ZLIB_INCLUDE})
# Archives are never encrypted; leaving the cipher out drops its key-setup code.
target_compile_definitions(wd64_minizip PRIVATE NOCRYPT)
# Third-party C keeps its own warnings; they are not the module's to fix.
target_compile_options(wd64_minizip PRIVATE -w)
target_link_libraries(wd64_minizip PUBLIC ${WD64_ZLIB_STATIC})

list(APPEND WD64_CORE_EXTRA_LIBS wd64_minizip)
