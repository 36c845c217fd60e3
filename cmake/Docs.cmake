# The API reference, made by Doxygen (Debian's doxygen package) from the
# public headers' own comments into docs/html of the build tree:
#   cmake --build build --target docs
# Any Doxygen warning fails the target, so an undocumented or mis-documented
# public declaration can't slip in.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(ZRX_DOCS_DIR ${CMAKE_CURRENT_BINARY_DIR}/docs)
  configure_file(cmake/Doxyfile.in ${ZRX_DOCS_DIR}/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${ZRX_DOCS_DIR}/html
    COMMAND Doxygen::doxygen ${ZRX_DOCS_DIR}/Doxyfile
    COMMENT "API reference in ${ZRX_DOCS_DIR}/html"
    VERBATIM)
endif()
