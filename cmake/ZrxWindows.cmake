# Windows specifics of the library target, included by the top-level
# CMakeLists.txt after zrx2dsticker and zrx2dsticker_objects exist.
#
# The DLL is zrx2dsticker.dll; with mingw-w64 its import library is
# libzrx2dsticker.dll.a. It links the C++ runtime dynamically: a host
# shares one libstdc++, libgcc and winpthread with it, since the public API
# hands std::string, std::mutex and virtual calls across the boundary (a
# static copy in the DLL would give the process two runtimes, each with its
# own lazily made mutex state). The DLLs that it and its hosts load are
# installed beside it in bin/.

set_target_properties(zrx2dsticker PROPERTIES PREFIX "")

# windows.h without its min/max macros and its rarely used parts (it comes
# in through winsock2.h and curl.h).
target_compile_definitions(zrx2dsticker_objects PUBLIC
  NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0601)
target_link_libraries(zrx2dsticker_objects PUBLIC ws2_32)
target_link_libraries(zrx2dsticker PRIVATE ws2_32)

if(MINGW)
  # Itanium-mangled, as on other systems: the DLL's export table then holds
  # the same names as the shared library's dynamic symbol table.
  target_sources(zrx2dsticker PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/cmake/zrx2dsticker.def)

  # The runtime of a mingw-w64 build: the toolchain's C++ runtime and
  # winpthread, zlib, and libcurl's DLL (Schannel needs nothing more).
  set(ZRX_RUNTIME_DLLS "")
  foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll zlib1.dll)
    execute_process(
      COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
      OUTPUT_VARIABLE found OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${found}" OR NOT EXISTS "${found}")
      find_file(found_${dll} ${dll} PATH_SUFFIXES bin lib)
      set(found "${found_${dll}}")
    endif()
    if(NOT found)
      message(FATAL_ERROR "${dll} not found for the runtime of the DLL")
    endif()
    list(APPEND ZRX_RUNTIME_DLLS "${found}")
  endforeach()
  get_target_property(zrx_curl_dll CURL::libcurl LOCATION)
  if(zrx_curl_dll MATCHES "\\.dll$")
    list(APPEND ZRX_RUNTIME_DLLS "${zrx_curl_dll}")
  else()
    find_file(zrx_curl_dll_found NAMES libcurl.dll libcurl-4.dll
              PATH_SUFFIXES bin)
    if(NOT zrx_curl_dll_found)
      message(FATAL_ERROR "libcurl's DLL not found")
    endif()
    list(APPEND ZRX_RUNTIME_DLLS "${zrx_curl_dll_found}")
  endif()
  install(FILES ${ZRX_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR}
          COMPONENT Runtime)
  # Where the runtime lies, for running the build's programs in place.
  set(ZRX_RUNTIME_DIRS "")
  foreach(dll IN LISTS ZRX_RUNTIME_DLLS)
    get_filename_component(dir "${dll}" DIRECTORY)
    list(APPEND ZRX_RUNTIME_DIRS "${dir}")
  endforeach()
  list(REMOVE_DUPLICATES ZRX_RUNTIME_DIRS)
endif()

# A target `name` that copies the runtime DLLs (and, with WITH_LIBRARY,
# zrx2dsticker.dll) into `dir`, so that the programs built there run in
# place.
function(zrx_runtime_into name dir)
  cmake_parse_arguments(arg "WITH_LIBRARY" "" "" ${ARGN})
  set(files ${ZRX_RUNTIME_DLLS})
  if(arg_WITH_LIBRARY)
    list(APPEND files $<TARGET_FILE:zrx2dsticker>)
  endif()
  if(files)
    add_custom_target(${name}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
      COMMAND ${CMAKE_COMMAND} -E copy_if_different ${files} ${dir}
      VERBATIM)
  else()
    add_custom_target(${name})
  endif()
  if(arg_WITH_LIBRARY)
    add_dependencies(${name} zrx2dsticker)
  endif()
endfunction()
