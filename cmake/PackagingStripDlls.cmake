# CPack pre-build script of the Windows zip: strips the debug sections from
# the DLLs in the staging tree. The toolchain's C++ runtime DLLs come with
# theirs (libstdc++-6.dll: 23 MB, 4 MB without), and install(FILES), which
# puts them beside the library, never strips.
file(GLOB_RECURSE zrx_dlls "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.dll")
foreach(dll IN LISTS zrx_dlls)
  execute_process(COMMAND "${CPACK_ZRX_STRIP}" --strip-debug "${dll}"
                  RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "strip failed on ${dll}")
  endif()
endforeach()
